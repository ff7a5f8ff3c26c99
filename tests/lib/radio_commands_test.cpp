#include <gtest/gtest.h>

#include "capture_output.h"
#include "command_stand_ins.h"
#include "orca-common.h"

namespace {

using Strings = std::vector<std::string>;

TEST(RunCommand, ReturnsEverythingTheCommandPrinted) {
    std::string big(1000, 'x');
    EXPECT_EQ(run_command("printf '%s' " + big + "; echo; echo second"), big + "\nsecond\n");
    EXPECT_EQ(run_command("true"), "");
}

TEST(ServiceQueries, OnlyTheExactWordCounts) {
    CommandStandIns commands;
    struct Case {
        std::string output;
        bool running;
    };
    for (const Case& c :
         {Case{"active\n", true}, Case{" \tactive\r\n", true}, Case{"inactive\n", false},
          Case{"activating\n", false}, Case{"", false}}) {
        commands.set_output("systemctl", c.output);
        EXPECT_EQ(is_service_running("orca-vtx"), c.running) << c.output;
    }
    commands.set_output("systemctl", "enabled\n");
    EXPECT_TRUE(is_service_enabled("orca-vtx"));
    EXPECT_EQ(commands.calls().back(), "systemctl is-enabled orca-vtx");
    EXPECT_FALSE(is_service_running("orca-vtx"));
    EXPECT_EQ(commands.calls().back(), "systemctl is-active orca-vtx");
}

TEST(ServiceQueries, ErrorOutputIsPartOfTheAnswer) {
    CommandStandIns commands;
    commands.set_error_output("systemctl", "active\n");
    EXPECT_TRUE(is_service_running("orca-vtx"));
    Printed printed = capture_output([] { EXPECT_FALSE(is_service_running("bad;name")); });
    EXPECT_EQ(printed.err, "Error: invalid service name \"bad;name\"\n");
    EXPECT_EQ(commands.calls(), Strings{"systemctl is-active orca-vtx"});
}

TEST(MonitorMode, RunsTheWholeSequenceEvenWhenStepsFail) {
    CommandStandIns commands;
    commands.set_status("systemctl", 5);  // services not installed
    commands.set_status("ifconfig", 1);   // no such interface
    EXPECT_EQ(set_monitor_mode("wlan7"), 0);
    EXPECT_EQ(
        commands.calls(),
        (Strings{"systemctl stop wpa_supplicant", "systemctl disable wpa_supplicant",
                 "systemctl stop orca-softap", "systemctl disable orca-softap",
                 "ifconfig wlan7 down", "iw dev wlan7 set monitor otherbss", "ifconfig wlan7 up"}));
}

TEST(MonitorMode, ReceiverScriptGetsTheBandOfTheChannel) {
    CommandStandIns commands;
    commands.set_output("bash", "lots of script output\n");
    Printed printed = capture_output([] {
        EXPECT_EQ(set_ath0_monitor_mode(14), 0);
        EXPECT_EQ(set_ath0_monitor_mode(36), 0);
    });
    EXPECT_EQ(printed.out, "Setting monitor mode ath0\nSetting monitor mode ath0\n");
    EXPECT_EQ(commands.calls(), (Strings{"bash /usr/bin/enable_vrx.sh -b 2G -c 14",
                                         "bash /usr/bin/enable_vrx.sh -b 5G -c 36"}));
}

}  // namespace
