// What one collection of a session costs, every duty by itself and all together, beside sysstat's
// sadc and collectd's csv plugin, which read the same sources of the kernel in the same run.
//
//   simulator/sandbox --build build/release -- build/release/bin/collection_bench [COLLECTIONS]
//
// After .ci/dependencies.sh bench.

#include "app_state.h"
#include "environment.h"
#include "filehandler.h"
#include "loop.h"
#include "main_timer.h"
#include "monitoring_session.h"
#include "process_list.h"
#include "session_globals.h"
#include "strutil.h"
#include "support/figures.h"
#include "system_bus.h"
#include "sysutil.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr const char *package = "/usr/local/packages/Vandrel";

double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// Processor time of this process and of its children that have ended.
double processor_time() {
    double sum = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        ::getrusage(who, &usage);
        sum += seconds(usage.ru_utime) + seconds(usage.ru_stime);
    }
    return sum;
}

struct cost {
    double wall_ms;
    double processor_ms;
};

cost measure(int times, const std::function<void()> &work) {
    const auto start = std::chrono::steady_clock::now();
    const double processor = processor_time();
    for (int i = 0; i < times; ++i) {
        work();
    }
    const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - start;
    return {wall.count() / times, (processor_time() - processor) * 1000 / times};
}

void print(const std::string &what, const cost &each) {
    std::printf("%-34s %9.2f ms wall %9.2f ms processor\n", what.c_str(), each.wall_ms,
                each.processor_ms);
}

long resident_kb() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") {
            long kb = 0;
            status >> kb;
            return kb;
        }
    }
    return 0;
}

// The device's services of the simulated camera, on a bus of the bench's own.
void start_services() {
    const fs::path binaries = fs::read_symlink("/proc/self/exe").parent_path();
    const std::string ready = "/run/services.ready";
    (void)system_ret(((binaries / "device_services").string() + " " + ready + " &").c_str());
    while (!fs::exists(ready)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    init_environment_monitor_settings();
}

// As a camera has them.
void install_tools() {
    for (const char *name : {"ps", "top", "uptime"}) {
        fs::create_symlink("/host/usr/bin/busybox", std::string("/test/bin/") + name);
    }
}

int children() {
    std::ifstream file("/proc/self/task/" + std::to_string(::getpid()) + "/children");
    int count = 0;
    for (int pid = 0; file >> pid;) {
        ++count;
    }
    return count;
}

// Until the scripts that a tick started have ended and are reaped: what follows has the processor
// to itself, and finds no zombies in /proc.
void let_scripts_end(int services) {
    const loop_turns reaping;
    while (children() > services) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        loop_run_due();
    }
}

std::string make_session() {
    fs::copy(fs::path(std::getenv("VANDREL_SOURCE")) / "package", package,
             fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    serial_number = "A1B2C3D4E5F6";
    const std::string folder = "20230531_08_27_40";
    (void)system_ret((std::string(package) + "/monitory_creator.sh localdata A1B2C3D4E5F6 " +
                      folder + " start ''")
                         .c_str());
    _set_secondary_storage_path(localdata_root);
    _set_current_activity_folder(folder);
    return session_directory().value();
}

std::vector<duty> duties_of_a_tick() {
    std::vector<duty> duties(collection_block().begin(), collection_block().end());
    for (const duty &entry : external_storage_schedule()) {
        const std::string_view name = entry.name;
        if (name == "what needs the storage" || name == "streams" || name == "radar") {
            duties.push_back(entry);
        }
    }
    return duties;
}

// What those run, one after the other.
constexpr const char *bare_commands = R"(
controller="dbus-send --system --print-reply --reply-timeout=1000 --dest=com.tarvo.TemperatureController
    --type=method_call /com/tarvo/TemperatureController com.tarvo.TemperatureController"
{
    uptime
    ps | grep "Vandrel"
    grep "pgfault" /proc/vmstat
    grep "pgmajfault" /proc/vmstat
    cat /proc/slabinfo
    $controller.GetAllTemperatures string:0
    $controller.GetHeaterStatus int32:0
    $controller.GetAllFanStatus
    top -n 1 -b
    dbus-send --system --print-reply  --reply-timeout=1000 --dest=com.tarvo.Streamer \
        /com/tarvo/Streamer/Cache com.tarvo.Streamer.Cache.GetStreams | grep string | sort
} >/dev/null)";

// What the scripts behind it run and read, in the same way.
constexpr const char *bare_scripts = R"(
{
    date; cat /proc/[0-9]*/stat /proc/[0-9]*/status
    date; top -n 1 -b; cat /proc/[0-9]*/stat
    date; ps; du -ks /usr/local/packages/*/*
} >/dev/null 2>&1)";

// What the scripts that a tick starts in the background cost when they are waited for.
cost background_scripts(int times, const std::string &session) {
    const std::string folder = session + "/system_monitoring/";
    return measure(times, [&] {
        for (const std::string &command :
             {"vmstatus_monitoring.sh " + folder + "monitoring_vmstatus",
              "topstatus_monitoring.sh " + folder + "monitoring_topstatus",
              "vela_status_monitor.sh " + folder + "monitoring_vela",
              "power.sh " + folder + "monitoring_environment"}) {
            (void)system_ret((std::string(package) + "/" + command).c_str());
        }
    });
}

// Where their packages are unpacked.
std::string peers() {
    return (fs::path(std::getenv("VANDREL_SOURCE")) / "build/packages").string();
}

double sadc_processor_ms(int samples) {
    const std::string command = format_text(
        "%s/sysstat/usr/lib/sysstat/sadc -S ALL 1 %d /tmp/sadc.data", peers().c_str(), samples);
    return measure(1, [&] { (void)system_ret(command.c_str()); }).processor_ms / samples;
}

double collectd_processor_ms(int samples) {
    const std::string installed = peers() + "/collectd-core/usr/";
    std::ofstream("/tmp/collectd.conf")
        << "PluginDir \"" << installed << "lib/collectd\"\nTypesDB \"" << installed
        << "share/collectd/types.db\"\n"
           "BaseDir \"/tmp/collectd\"\nPIDFile \"/tmp/collectd.pid\"\n"
           "Interval 1\nReadThreads 1\nWriteThreads 1\n"
           "LoadPlugin csv\n<Plugin csv>\nDataDir \"/tmp/collectd/csv\"\n</Plugin>\n"
           "LoadPlugin interface\nLoadPlugin memory\nLoadPlugin load\nLoadPlugin vmem\n"
           "LoadPlugin buddyinfo\nLoadPlugin irq\nLoadPlugin processes\n";
    const std::string command = format_text("timeout -s INT %d %ssbin/collectd -f -C "
                                            "/tmp/collectd.conf > /dev/null 2>&1",
                                            samples + 1, installed.c_str());
    return measure(1, [&] { (void)system_ret(command.c_str()); }).processor_ms / samples;
}

} // namespace

int main(int argc, char **argv) {
    const int collections = argc > 1 ? std::atoi(argv[1]) : 50;
    constexpr int samples = 10;
    const system_bus bus;
    install_tools();
    start_services();
    const int services = children();
    const std::string session = make_session();
    const long memory = resident_kb();
    std::printf("Each duty of a collecting tick, mean of %d:\n", collections);
    const std::vector<duty> duties = duties_of_a_tick();
    std::vector<cost> costs(duties.size());
    double bare = 0;
    for (int i = 0; i < collections; ++i) {
        {
            const process_list_memory once;
            for (std::size_t d = 0; d < duties.size(); ++d) {
                const cost each = measure(1, [&] { duties[d].run(session); });
                costs[d].processor_ms += each.processor_ms / collections;
                costs[d].wall_ms += each.wall_ms / collections;
            }
        }
        let_scripts_end(services);
        bare += measure(1, [] { (void)system_ret(bare_commands); }).processor_ms / collections;
    }
    double processor = 0;
    for (std::size_t d = 0; d < duties.size(); ++d) {
        print(std::string("  ") + duties[d].name, costs[d]);
        processor += costs[d].processor_ms;
    }
    const cost scripts = background_scripts(collections, session);
    const cost bare_behind = measure(collections, [] { (void)system_ret(bare_scripts); });
    print("its scripts in the background", scripts);
    const double ours = processor + scripts.processor_ms;
    figure("a collection, in the tick", processor, "ms", "its commands alone, by a shell", bare,
           {.ratio = 1.1, .most = 20});
    figure("a collection, its scripts behind", scripts.processor_ms, "ms",
           "their commands alone, by a shell", bare_behind.processor_ms, {.most = 8});
    figure("a collection, both", ours, "ms", "sadc", sadc_processor_ms(samples));
    figure("a collection, both", ours, "ms", "collectd", collectd_processor_ms(samples));
    figure("memory after the collections", static_cast<double>(resident_kb()), "kB", "before",
           static_cast<double>(memory));
    return 0;
}
