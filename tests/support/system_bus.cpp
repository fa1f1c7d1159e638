#include "system_bus.h"

#include "sandbox.h"

#include <csignal>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *configuration_path = "/test/bus.conf";
constexpr const char *socket_path = "/run/dbus/system_bus_socket";
constexpr const char *configuration =
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
    "<busconfig>\n"
    "  <type>system</type>\n"
    "  <listen>unix:path=/run/dbus/system_bus_socket</listen>\n"
    "  <policy context=\"default\">\n"
    "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
    "    <allow eavesdrop=\"true\"/>\n"
    "    <allow own=\"*\"/>\n"
    "  </policy>\n"
    "</busconfig>\n";

} // namespace

system_bus::system_bus() {
    write_file(configuration_path, configuration);
    std::filesystem::create_directories("/run/dbus");
    pid_ = ::fork();
    if (pid_ == 0) {
        ::execlp("dbus-daemon", "dbus-daemon", "--config-file=/test/bus.conf", "--nofork",
                 "--nopidfile", nullptr);
        ::_exit(127);
    }
    wait_until([] { return ::access(socket_path, F_OK) == 0; });
}

system_bus::~system_bus() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    ::unlink(socket_path);
}
