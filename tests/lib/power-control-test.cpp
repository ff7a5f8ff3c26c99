#include <cmath>

#include <fmt/core.h>
#include <gtest/gtest.h>

#include "capture_output.h"
#include "command_stand_ins.h"
#include <orca-vtx/orca-vtx-helpers.h>

using orca_test::capture_output;
using orca_test::Printed;

namespace {

constexpr auto kOff = RegulatoryDomain::off;
constexpr auto kFcc = RegulatoryDomain::fcc;

int pick(const PowerCalibrationMap& map, int mcs, int wanted, int frequency,
         RegulatoryDomain domain = kOff, bool adc = true) {
    return findClosestPowerIndex(map, mcs, &wanted, frequency, domain, adc);
}

TEST(FindClosestPowerIndex, WithoutTableOrDetectorUsesTheFixedMaximaOfTheBand) {
    // MCS, MHz, regulatory domain, index
    const int cases[][4] = {{5, 2412, 1, 45}, {2, 2484, 0, 39}, {0, 2485, 1, 30},
                            {5, 5340, 1, 30}, {5, 5500, 1, 58}, {5, 5200, 0, 58}};
    for (const auto& c : cases) {
        Printed printed = capture_output([&] {
            EXPECT_EQ(pick({}, c[0], 25, c[1], RegulatoryDomain(c[2]), false), c[3]) << c[1];
        });
        EXPECT_EQ(printed.err, fmt::format("Calibration file missing and ADC unavailable. "
                                           "Defaulting to max power idx for {}MHz --> {}\n",
                                           c[1], c[3]));
    }
}

TEST(FindClosestPowerIndex, TakesTheNearestEntryOfTheNearestMcsAndTheLowerOnATie) {
    const PowerCalibrationMap map{{1, {{50, 5}, {100, 10}, {200, 20}}}, {4, {{100, 44}}}};
    // MCS, wanted mW, MHz, domain, index: MCS 3 takes its lower neighbour 1 before 4, MCS 0
    // the nearest higher one, 1. Under FCC 5180 to 5320 MHz always want 200 mW.
    const int cases[][5] = {{1, 150, 5800, 1, 10},  {1, 151, 5800, 0, 20}, {1, 10, 5800, 1, 5},
                            {1, 5000, 5800, 1, 20}, {3, 100, 5800, 1, 10}, {0, 100, 5800, 1, 10},
                            {1, 50, 5320, 1, 20},   {1, 50, 5321, 1, 5},   {1, 50, 5200, 0, 5}};
    for (const auto& c : cases)
        EXPECT_EQ(pick(map, c[0], c[1], c[2], RegulatoryDomain(c[3])), c[4])
            << "MCS " << c[0] << ", " << c[1] << " mW at " << c[2];
    int wanted = 50;
    Printed printed = capture_output(
        [&] { EXPECT_EQ(findClosestPowerIndex(map, 1, &wanted, 5180, kFcc, true), 20); });
    EXPECT_EQ(wanted, 200);
    EXPECT_EQ(printed.out, "Limiting power for frequency 5180 to max of 200mw (23dBm).\n");

    EXPECT_EQ(pick({{0, {{-3, 7}}}}, 0, 10, 5800), 1);  // a negative end entry gives index 1
    printed = capture_output([&] { EXPECT_EQ(pick({{9, {{100, 9}}}}, 8, 100, 5800), 1); });
    EXPECT_EQ(printed.err,
              "Power calibration data for MCS8 not found and no neighboring MCS available.\n");
}

class PowerFeedback : public testing::Test {
  protected:
    void SetUp() override {
        power_samples.clear();
        power_over_limit_cnt = 0;
    }
    // Measured values are given in mW; half a milliwatt keeps them clear of truncation.
    void measure(std::initializer_list<double> mws) {
        for (double mw : mws)
            power_feedback_loop(&config, &control, 10.0 * std::log10(mw + 0.5), false);
    }
    // The power indices written so far.
    std::vector<int> written() const {
        std::vector<int> indices;
        for (const std::string& call : commands.calls())
            indices.push_back(std::stoi(call.substr(call.rfind(' '))));
        return indices;
    }

    CommandStandIns commands;
    vtx_config_t config{"wlan0", false, 0, {vtx_profile_t{100, 20}}};  // band 95 to 105 mW
    vtx_profile_t& profile = config.profiles[0];
    PowerControl control{false, true, 0, 0, 0, 3};  // a sequence just started, 3 averaged
};

TEST_F(PowerFeedback, StepsUntilInBandThenSettlesWithAFinalTrim) {
    control.tolerance = 0.06;  // band 94 to 106 mW
    measure({31});             // predates the change: dropped
    EXPECT_TRUE(power_samples.empty());
    measure({31, 79, 107, 103});
    EXPECT_EQ(written(), (std::vector{21, 22, 21, 20}));  // in band above 100 mW: one step down
    EXPECT_FALSE(control.active);
    EXPECT_EQ(control.step_count + control.direction, 0);
    EXPECT_EQ(control.tolerance, 0.05);
    EXPECT_EQ(control.low_limit_mw, 94);
    EXPECT_TRUE(power_samples.empty());
}

TEST_F(PowerFeedback, LeavesTheIndexAloneWhenNothingIsToBeDone) {
    control.step_count = 1;
    control.low_limit_mw = 120;
    power_feedback_loop(&config, &control, 20.0, false);  // exactly the wanted 100 mW, out of band
    config.alt_power_enabled = true;
    measure({20});
    EXPECT_TRUE(control.active);
    EXPECT_EQ(control.step_count, 1);
    config.alt_power_enabled = false;
    // Falling below after stepping down settles on the level reached (profiles to 999 mW),
    // and the band goes back to its usual width.
    control = PowerControl{false, true, 3, 0, 0, 3, 0.08, 2};
    measure({60});
    EXPECT_FALSE(control.active);
    EXPECT_EQ(control.low_limit_mw, 60);
    EXPECT_EQ(control.tolerance, 0.05);
    control.active = true;
    control.step_count = 1;
    profile.power_idx = 63;  // not regulated
    measure({20});
    EXPECT_FALSE(control.active);
    EXPECT_TRUE(commands.calls().empty());

    commands.answer("iw", "", 1);
    profile.power_idx = 20;
    control.active = true;
    EXPECT_EQ(capture_output([&] { measure({50}); }).out,
              "Failed to set requested power setting.\n");
}

TEST_F(PowerFeedback, StopsAtTheEndsOfTheIndexRangeKeepingOnlyTheStepDown) {
    profile.power_idx = 62;
    control.step_count = 1;
    measure({50, 50});  // 63 is written; 64 is not, and that step is taken back
    EXPECT_EQ(written(), std::vector{63});
    EXPECT_EQ(control.index_offset, 1);
    EXPECT_FALSE(control.active);
    profile.power_idx = 1;
    control = PowerControl{false, true, 1, 0, 0, 3};
    measure({500});  // index 0 is not written, but the offset keeps the step down
    EXPECT_EQ(written(), std::vector{63});
    EXPECT_EQ(control.index_offset, -1);
    EXPECT_FALSE(control.active);
}

TEST_F(PowerFeedback, SteadyStateHoldsTheLevelOnFullWindowsOfMeasurements) {
    control.active = false;
    control.low_limit_mw = 95;
    measure({200, 200, 200, 200, 200, 200, 200});  // five averages over the limit are counted
    EXPECT_EQ(power_over_limit_cnt, 5);
    EXPECT_TRUE(commands.calls().empty());
    measure({200});  // the sixth steps down
    EXPECT_TRUE(power_samples.empty());
    measure({200, 200, 200});  // the count stays: the next full window steps down at once
    measure({50, 60, 70});     // a low average steps up and clears the count
    EXPECT_EQ(power_over_limit_cnt, 0);
    power_over_limit_cnt = 3;
    measure({90, 100, 110});  // so does one in the band, without a step
    EXPECT_EQ(power_over_limit_cnt, 0);
    EXPECT_TRUE(power_samples.empty());
    EXPECT_EQ(written(), (std::vector{19, 18, 19}));
}

TEST(SetPower, WritesTheAlternateIndexOnlyWithoutPrimaryOverride) {
    CommandStandIns commands;
    set_power("wlan1", 30, 7, false, true);
    set_power("wlan1", 30, 7, true, true);
    EXPECT_EQ(capture_output([] { set_power("wlan1;reboot", 30, 7, false, false); }).err,
              "Error: invalid interface name \"wlan1;reboot\"\n");
    EXPECT_EQ(commands.calls(), (std::vector<std::string>{"iw dev wlan1 set txpower fixed 7",
                                                          "iw dev wlan1 set txpower fixed 30"}));
}

}  // namespace
