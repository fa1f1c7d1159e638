#include "app_state.h"
#include "environment.h"
#include "log_capture.h"
#include "onvif.h"
#include "sandbox.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using texts = std::vector<std::string>;

const std::string session = "/tmp/session";
const std::string environment = session + "/system_monitoring/monitoring_environment";

// The service: a line of output for each method, then its exit status. Methods not named fail.
void service(const std::vector<std::pair<std::string, std::string>> &replies) {
    std::string script = "echo \"dbus-send $*\" >> /tmp/asked\ncase \"$*\" in\n";
    for (const auto &[method, reply] : replies) {
        write_file("/tmp/replies/" + method, reply);
        script += "*'." + method + "'*) cat '/tmp/replies/" + method + "' ;;\n";
    }
    install_tool("dbus-send", script + "*) exit 1 ;;\nesac\n");
}

std::string head(const std::string &reply) {
    return "method return time=1.2 sender=:1.0 -> destination=:1.3 serial=7 reply_serial=2\n" +
           reply;
}

std::string dictionary(const texts &entries) {
    std::string text = "   array [\n";
    for (const std::string &entry : entries) {
        text += "      dict entry(\n" + entry + "      )\n";
    }
    return head(text + "   ]\n");
}

std::string pair_of(int key, const std::string &value) {
    return "         int32 " + std::to_string(key) + "\n         " + value + "\n";
}

void start(const std::vector<std::pair<std::string, std::string>> &parameter_lines) {
    std::string text = "root.Properties.System.SerialNumber=A1B2C3D4E5F6\n";
    for (const auto &[name, value] : parameter_lines) {
        text += name + "=" + value + "\n";
    }
    write_file("/etc/tvparameter/parameters.conf", text);
    parameters.reset(tv_parameter_new("Vandrel", nullptr));
    fs::remove_all(session);
    fs::create_directories(session + "/system_monitoring");
    init_environment_monitor_settings();
}

void collect() {
    store_temperatures_celsius(environment);
    store_heater_status(environment);
    store_fan_status(environment);
}

// The file's text with every time stamp as T.
std::string rows(const std::string &path) {
    return std::regex_replace(read_file(path),
                              std::regex("[0-9]{4}(-[0-9]{2}){2},[0-9]{2}(:[0-9]{2}){2}"), "T");
}

} // namespace

TEST(Environment, EveryItemHasItsFile) {
    service({{"GetNbrOfTemperatureSensors", head("   int32 12\n")},
             {"GetNbrOfHeaters", head("   int32 2\n")},
             {"GetNbrOfFans", head("   int32 3\n")},
             {"GetAllTemperatures", dictionary({pair_of(11, "double 5"), pair_of(1, "double -3.25"),
                                                pair_of(0, "double 41.5"), pair_of(3, "double 7"),
                                                pair_of(2, "string \"warm\"")})},
             {"GetHeaterStatus int32:0", head("   string \"Running\"\n")},
             {"GetHeaterStatus int32:1", head("   boolean true\n")},
             {"GetAllFanStatus",
              dictionary({pair_of(0, "string \"Stopped\""), pair_of(1, "double 4")})}});
    const std::string long_name(300, 'n');
    start({{"root.TemperatureControl.Sensor.S0.Name", "Main board"},
           {"root.TemperatureControl.Sensor.S1.Name", "../../etc/x"},
           {"root.TemperatureControl.Sensor.S3.Name", "main board"}, // taken, on a card
           {"root.TemperatureControl.Sensor.S11.Name", long_name}});
    log_capture log;
    collect();
    collect();
    const std::string header = "Date, Time, Temperature (Celsius)\n";
    EXPECT_EQ(rows(environment + "/Main_board.csv"), header + "T,41.5\nT,41.5\n");
    EXPECT_EQ(rows(environment + "/main_board_3.csv"), header + "T,7\nT,7\n");
    EXPECT_EQ(rows(environment + "/_._.._etc_x.csv"), header + "T,-3.25\nT,-3.25\n");
    EXPECT_EQ(rows(environment + "/" + long_name.substr(0, 90) + ".csv"), header + "T,5\nT,5\n");
    EXPECT_EQ(rows(environment + "/Heater_0.csv"),
              "Date, Time, Heater status\nT,Running\nT,Running\n");
    EXPECT_EQ(rows(environment + "/Fan_0.csv"), "Date, Time, Fan status\nT,Stopped\nT,Stopped\n");
    EXPECT_EQ(list_folder(environment).size(), 6U) << "what is not told has no file";
    const std::string error = "ERR (environment:#, errno: None) Expected string value, got ";
    EXPECT_EQ(log.texts(), texts(2, error + "         double 4"));
    EXPECT_NE(read_file("/tmp/asked")
                  .find("dbus-send --system --print-reply --reply-timeout=1000 "
                        "--dest=com.tarvo.TemperatureController --type=method_call "
                        "/com/tarvo/TemperatureController "
                        "com.tarvo.TemperatureController.GetAllTemperatures string:0\n"),
              std::string::npos);
}

TEST(Environment, HowManyThereAre) {
    const struct {
        const char *what;
        std::string reply;
        int sensors;
    } cases[] = {
        {"no service", "", 0},
        {"none", head("   int32 0\n"), 0},
        {"25", head("   int32 25\n"), 20},
        {"negative", head("   int32 -4\n"), 0},
        {"huge", head("   int32 99999999999999999999\n"), 20},
        {"a text", head("   string \"int\"\n"), 0},
        {"enormous", head(std::string(2'000'000, 'x')), 0},
    };
    for (const auto &c : cases) {
        service({{"GetNbrOfTemperatureSensors", c.reply}});
        start({});
        EXPECT_EQ(number_of_temperature_sensors, c.sensors) << c.what;
        EXPECT_EQ(temperature_sensor_names.size(), static_cast<std::size_t>(c.sensors));
        collect();
        EXPECT_TRUE(list_folder(environment).empty()) << c.what;
    }
    service({{"GetNbrOfTemperatureSensors", head("   int32 2\n")},
             {"GetAllTemperatures", dictionary({pair_of(1, "double 7")})}});
    start({});
    collect();
    EXPECT_EQ(list_folder(environment), texts{"Sensor_1.csv"});
}

TEST(Environment, AFanWithoutAValue) {
    log_capture log;
    EXPECT_FALSE(parse_fan_status({"int32 1"}, 1, "COMMAND"));
    EXPECT_EQ(
        parse_fan_status({"int32 1", "   double 3", "int32 1", "string \"on, \"quick\""}, 1, ""),
        "on, ");
    EXPECT_EQ(log.texts(), (texts{"WARNING Could not fgets value from COMMAND",
                                  "ERR (environment:#, errno: None) Expected string value, got "
                                  "   double 3"}));
}

TEST(Streams, AreJoined) {
    const std::string file = session + "/system_monitoring/monitoring_streams/stream.csv";
    const struct {
        std::string output, row;
    } cases[] = {
        {"", "No streams "},
        {"   array [\n   ]\n", "No streams "},
        {"      string \"b=2 \"x\", y\"\n      string \"a=1\"\n", " a=1 + b=2  x , y "},
        {"Error org.string: no\n", "Error: Failed to get stream info"},
        {"      string \"" + std::string(500, 's') + "\"\n", " " + std::string(185, 's')},
    };
    for (const auto &c : cases) {
        write_file("/tmp/streams", c.output);
        install_tool("dbus-send", "cat /tmp/streams\n");
        fs::remove_all(session);
        fs::create_directories(session + "/system_monitoring");
        store_video_stream_history_no_retention(session);
        EXPECT_EQ(rows(file), "Date,Time,Streams\r\nT," + c.row + "\r\n");
    }
}

TEST(SelfMonitoring, FindsItsOwnLine) {
    using share = std::optional<std::pair<int, int>>;
    const struct {
        const char *line;
        share expected;
    } cases[] = {
        {"  412     1 root     S     8312   3%  17% /usr/local/packages/Vandrel/Vandrel",
         {{3, 17}}},
        {" 412 1 root S 8312 12.75% 0.9% Vandrel", {{12, 0}}},
        {" 4123 1 root S 8312 3% 17% Vandrel", {}},
        {" 41 412 root S 8312 3% 17% Vandrel", {}},
        {" 412 1 root S 8312 3% 17 Vandrel", {}},
        {" 412 1 root S % %", {{0, 0}}},
        {"Mem: 412", {}},
        {"", {}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(parse_top_line(c.line, 412), c.expected) << c.line;
    }
    const std::string folder = "/tmp/self";
    install_tool("top", "echo 'Mem: 1K used'; echo '  " + std::to_string(::getpid()) +
                            " 1 root S 8 3% 17% x'; yes\n");
    store_self_monitoring(folder);
    install_tool("top", "echo nothing\n");
    log_capture log;
    store_self_monitoring(folder);
    EXPECT_EQ(rows(folder + "/Vandrel_summary.csv"), "Date,Time,%Vsz,%Cpu\nT,3,17\n");
    EXPECT_EQ(log.texts(), texts{"ERR (environment:#, errno: None) Failed to get top for Vandrel"});
}

TEST(Radar, CopiesDataOnceAndStatisticsEveryTime) {
    const std::string source = "/tmp/radar-diagnostics/";
    const std::string target = session + "/system_monitoring/monitoring_radar/";
    fs::remove_all(session);
    fs::create_directories(session + "/system_monitoring");
    fs::remove_all(source);
    store_radar_data(session);
    onvif_copy_media_conf(session);
    EXPECT_TRUE(list_folder(session + "/system_monitoring").empty());
    write_file(source + "radar_1.data", "one");
    write_file(source + "instqual_lt_stats_0.csv", "first");
    write_file(source + "other.data", "x");
    fs::create_directories(source + "radar_folder.data");
    fs::create_symlink("/etc/passwd", source + "radar_link.data");
    ASSERT_EQ(::mkfifo((source + "radar_pipe.data").c_str(), 0600), 0);
    log_capture log;
    store_radar_data(session);
    write_file(source + "radar_1.data", "two");
    write_file(source + "instqual_lt_stats_0.csv", "2");
    store_radar_data(session);
    EXPECT_EQ(list_folder(target), (texts{"instqual_lt_stats_0.csv", "radar_1.data"}));
    EXPECT_EQ(read_file(target + "radar_1.data"), "one");
    EXPECT_EQ(read_file(target + "instqual_lt_stats_0.csv"), "2");
    EXPECT_EQ(log.texts().size(), 6U) << "a line for each that is no file";
}

// The last one: the service is left out from then on.
TEST(Environment, AHeaterThatHangsEndsItsRound) {
    service({{"GetNbrOfHeaters", head("   int32 3\n")}});
    start({});
    install_tool("dbus-send",
                 "echo \"$*\" >> /tmp/asked\ncase \"$*\" in *int32:1) sleep 1; exit 1 ;; esac\n"
                 "echo '   string \"Running\"'\n");
    write_file("/tmp/asked", "");
    store_heater_status(environment);
    EXPECT_EQ(list_folder(environment), texts{"Heater_0.csv"});
    EXPECT_EQ(read_file("/tmp/asked").find("int32:2"), std::string::npos);
}
