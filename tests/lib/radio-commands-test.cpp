#include <gtest/gtest.h>

#include "capture_output.h"
#include "command_stand_ins.h"
#include <orca-vtx/orca-common.h>

using orca_test::capture_output;
using orca_test::Printed;

namespace {

using Strings = std::vector<std::string>;

TEST(RunCommand, ReturnsEverythingTheCommandPrinted) {
    const std::string big(1000, 'x');
    EXPECT_EQ(run_command("printf '%s' " + big + "; echo; echo second"), big + "\nsecond\n");
}

TEST(ServiceQueries, OnlyTheExactWordCounts) {
    CommandStandIns commands;
    std::vector<bool> running;
    for (const char* output : {"active\n", " \tactive\r\n", "inactive\n", "activating\n"}) {
        commands.answer("systemctl", output, 3);
        running.push_back(is_service_running("orca-vtx"));
    }
    EXPECT_EQ(running, (std::vector<bool>{true, true, false, false}));
    commands.answer("systemctl", "", 0, "enabled\n");  // standard error is part of the answer
    EXPECT_TRUE(is_service_enabled("orca-vtx"));
    EXPECT_FALSE(is_service_running("orca-vtx"));
    Printed printed = capture_output([] { EXPECT_FALSE(is_service_running("bad;name")); });
    EXPECT_EQ(printed.err, "Error: invalid service name \"bad;name\"\n");
    const Strings calls = commands.calls();
    EXPECT_EQ(Strings(calls.end() - 2, calls.end()),
              (Strings{"systemctl is-enabled orca-vtx", "systemctl is-active orca-vtx"}));
}

TEST(MonitorMode, RunsTheWholeSequenceEvenWhenStepsFailAndStopsWithoutAShell) {
    CommandStandIns commands;
    commands.answer("systemctl", "", 5);  // services not installed
    commands.answer("ifconfig", "", 1);   // no such interface
    EXPECT_EQ(set_monitor_mode("wlan7"), 0);
    const Strings sequence{"systemctl stop wpa_supplicant",
                           "systemctl disable wpa_supplicant",
                           "systemctl stop orca-softap",
                           "systemctl disable orca-softap",
                           "ifconfig wlan7 down",
                           "iw dev wlan7 set monitor otherbss",
                           "ifconfig wlan7 up"};
    EXPECT_EQ(commands.calls(), sequence);
    commands.refuse_shell_after(5);
    EXPECT_EQ(set_monitor_mode("wlan7"), -1);
    EXPECT_EQ(commands.calls().size(), 12u);  // the sixth step could not start: no seventh
}

TEST(MonitorMode, ReceiverScriptGetsTheBandOfTheChannel) {
    CommandStandIns commands;
    commands.answer("bash", "lots of script output\n");
    EXPECT_EQ(capture_output([] { set_ath0_monitor_mode(14), set_ath0_monitor_mode(36); }).out,
              "Setting monitor mode ath0\nSetting monitor mode ath0\n");
    EXPECT_EQ(commands.calls(), (Strings{"bash /usr/bin/enable_vrx.sh -b 2G -c 14",
                                         "bash /usr/bin/enable_vrx.sh -b 5G -c 36"}));
}

}  // namespace
