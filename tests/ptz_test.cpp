#include "log_capture.h"
#include "ptz.h"
#include "sandbox.h"

#include <gtest/gtest.h>

namespace {

using texts = std::vector<std::string>;

// A gdbus that prints these.
void service(const std::string &presets, const std::string &signals) {
    write_file("/tmp/presets", presets);
    write_file("/tmp/signals", signals);
    install_tool("gdbus", "echo \"gdbus $*\" >> /tmp/asked\n"
                          "case $1 in call) cat /tmp/presets ;; *) cat /tmp/signals ;; esac\n");
}

std::string change(const std::string &status) {
    return "/com/tarvo/Ptz1/Channel/1: org.freedesktop.DBus.Properties.PropertiesChanged "
           "('com.tarvo.Ptz1.Channel', {'PresetStatus': <" +
           status + ">}, @as [])\n";
}

texts logged() {
    log_capture log;
    ptz_loop();
    return log.texts();
}

} // namespace

TEST(Ptz, NamesOfPresets) {
    const std::string long_name(300, 'n');
    const struct {
        texts lines, names;
    } cases[] = {
        {{"(uint32 2, ['Home', 'Main gate'])\n"}, {"Home", "Main gate"}},
        {{"(uint32 0, ['Home'])\n", "'Gate'\n"}, {}},
        {{"('Home')\n"}, {}},
        {{""}, {}},
        {{"(uint32 2, ['Ho\n", "me', '", "', 'last"}, {"Ho\nme", "", "last"}},
        {{"(uint32 3, [\"Bob's \", \"\", 'a\"b'])"}, {"Bob's ", "", "a\"b"}},
        {{"(uint32 1, ['" + long_name + "'])\n"}, {long_name.substr(0, 255)}},
    };
    for (const auto &c : cases) {
        preset_names presets;
        for (const std::string &line : c.lines) {
            if (!preset_names_take(presets, line)) {
                break;
            }
        }
        EXPECT_EQ(presets.names, c.names) << c.lines[0];
    }
    preset_names many;
    std::string line = "(uint32 4000000000, [";
    for (int i = 0; i < 5000; ++i) {
        line += "'x', ";
    }
    EXPECT_FALSE(preset_names_take(many, line));
    EXPECT_EQ(many.names.size(), 1000U);
}

TEST(Ptz, Movements) {
    const texts entering{"INFO Entering ptz_loop"};
    service("(uint32 2, ['Home', 'Main \"gate\"'])\n",
            change("(uint32 2, uint32 2)") + change("(uint32 1, uint32 2)") +
                change("(uint32 2, uint32 0)") + change("(uint32 2, uint32 3)") +
                change("(uint32 2, uint32 99999999999999999999)") + change("(uint32 3, uint32 1)") +
                change("(uint32 x, uint32 1)") + change("(uint32 2)") + change("(") + change("") +
                "'PresetStatus': <(uint32 2, uint32 1)>\n" + std::string(10'000, 'x') + "\n" +
                change("(uint32 1, uint32 1)"));
    EXPECT_EQ(logged(), (texts{entering[0], "INFO Preset Movement: Preset Moving \"Main \"gate\"\"",
                               "INFO Preset Movement: Preset Reached \"Main \"gate\"\" reached",
                               "INFO Preset Movement: Preset Reached \"Home\" reached"}));
    EXPECT_EQ(read_file("/tmp/asked"),
              "gdbus call -y -d com.tarvo.Ptz1 -o /com/tarvo/Ptz1/Channel/1 -m "
              "com.tarvo.Ptz1.Channel.GetPresets\n"
              "gdbus monitor -y -d com.tarvo.Ptz1 -o /com/tarvo/Ptz1/Channel/1\n");
    service("", change("(uint32 1, uint32 1)"));
    EXPECT_EQ(logged(),
              (texts{entering[0], "INFO Could not get PTZ preset names, probably due to old "
                                  "firmware. PTZ preset movement tracking have been disabled."}));
}
