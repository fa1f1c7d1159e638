// com.tarvo.Storage: what storages the camera has, as their mounts are at the moment of the call.
//
// Callers read dbus-send's print of GetAllStoragesInfo by lines, counted from the one with the
// storage's name:
//
//    0  string "SD_DISK"        4  string "flash"          8  boolean Encrypted
//    1  string "mmcblk0p1"      5  boolean Connected       9  boolean Full
//    2  string "ext4"           6  boolean Mounted        10  boolean ReadOnly
//    3  string "OK"             7  boolean Removable      11  }
//
// com.tarvo.Simulator.Storage.SetReply makes it answer otherwise:
//   "real"      as above
//   "empty"     no storage at all
//   "cut"       each storage ends after its file system
//   "enormous"  20,000 unusable storages and a name of 100,000 characters before the real ones
//   "slow"      as above, but 10 seconds late
//   "error"     an error
#include "service.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <sys/statvfs.h>
#include <vector>

namespace {

constexpr const char *mount_points = "/var/spool/storage";
constexpr int enormous_count = 20'000;
constexpr std::size_t enormous_name = 100'000;

struct mount_info {
    std::string device;
    std::string file_system;
    bool read_only = false;
};

struct storage_info {
    std::string name;
    std::optional<mount_info> mounted;
    bool usable = false;
    bool full = false;
};

std::string reply_kind = "real";

bool has_option(const std::string &options, const std::string &wanted) {
    return ("," + options + ",").find("," + wanted + ",") != std::string::npos;
}

// 36 35 98:0 / /mnt rw,noatime master:1 - ext4 /dev/root rw,errors=continue
std::optional<mount_info> mount_at(const std::string &path) {
    std::optional<mount_info> found; // the last one lies on top
    std::ifstream file("/proc/self/mountinfo");
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string skipped, point, options, word, file_system, source, super_options;
        words >> skipped >> skipped >> skipped >> skipped >> point >> options;
        while (words >> word && word != "-") {
        }
        words >> file_system >> source >> super_options;
        if (words && point == path) {
            found = {std::filesystem::path(source).filename(), file_system,
                     has_option(options, "ro") || has_option(super_options, "ro")};
        }
    }
    return found;
}

std::vector<storage_info> read_storages() {
    std::vector<storage_info> storages;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(mount_points, error)) {
        storage_info storage;
        storage.name = entry.path().filename();
        if (!entry.is_directory(error) ||
            !g_utf8_validate(storage.name.c_str(), -1, nullptr)) { // the bus takes no other text
            continue;
        }
        storage.mounted = mount_at(entry.path());
        struct statvfs space {};
        if (storage.mounted && statvfs(entry.path().c_str(), &space) == 0) {
            storage.usable = true;
            storage.full = space.f_bavail == 0;
        }
        storages.push_back(std::move(storage));
    }
    std::sort(storages.begin(), storages.end(),
              [](const auto &one, const auto &other) { return one.name < other.name; });
    return storages;
}

const char *kind_of(const std::string &name) {
    return name == "SD_DISK" ? "flash" : name == "NetworkShare" ? "network" : "disk";
}

const char *status_of(const storage_info &storage) {
    return storage.usable ? "OK" : storage.mounted ? "Failed" : "Disconnected";
}

void add(GVariantBuilder *builder, const storage_info &storage) {
    const mount_info mounted = storage.mounted.value_or(mount_info{});
    const gboolean is_mounted = storage.mounted.has_value();
    g_variant_builder_add(builder, "(sssssbbbbbb)", storage.name.c_str(), mounted.device.c_str(),
                          mounted.file_system.c_str(), status_of(storage),
                          kind_of(storage.name), // no text after the name may hold the name again
                          is_mounted, is_mounted, storage.name == "SD_DISK", FALSE, storage.full,
                          mounted.read_only);
}

GVariant *all_storages() {
    GVariantBuilder builder;
    if (reply_kind == "cut") {
        g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sss)"));
        for (const storage_info &storage : read_storages()) {
            g_variant_builder_add(&builder, "(sss)", storage.name.c_str(), "", "");
        }
        return g_variant_new("(a(sss))", &builder);
    }
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sssssbbbbbb)"));
    if (reply_kind == "enormous") {
        add(&builder, {std::string(enormous_name, 'x'), {}});
        for (int i = 0; i < enormous_count; ++i) {
            add(&builder, {"EXTRA_" + std::to_string(i), {}});
        }
    }
    if (reply_kind != "empty") {
        for (const storage_info &storage : read_storages()) {
            add(&builder, storage);
        }
    }
    return g_variant_new("(a(sssssbbbbbb))", &builder);
}

void call(const char *method, GVariant *arguments, GDBusMethodInvocation *invocation) {
    if (g_str_equal(method, "SetReply")) {
        const gchar *kind = nullptr;
        g_variant_get(arguments, "(&s)", &kind);
        reply_kind = kind;
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (reply_kind == "error" || reply_kind == "slow") {
        answer_as(reply_kind, invocation, all_storages());
    } else {
        answer(invocation, all_storages());
    }
}

} // namespace

const bus_service storage_service = {
    "com.tarvo.Storage",
    "/com/tarvo/Storage",
    R"xml(<node>
  <interface name="com.tarvo.Storage">
    <method name="GetAllStoragesInfo">
      <arg name="storages" type="a(sssssbbbbbb)" direction="out"/>
    </method>
  </interface>
  <interface name="com.tarvo.Simulator.Storage">
    <method name="SetReply"><arg name="kind" type="s" direction="in"/></method>
  </interface>
</node>)xml",
    call,
};
