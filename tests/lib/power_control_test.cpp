#include <cmath>

#include <gtest/gtest.h>

#include "capture_output.h"
#include "command_stand_ins.h"
#include "orca-vtx-helpers.h"

namespace {

using Strings = std::vector<std::string>;
constexpr auto kOff = RegulatoryDomain::off;
constexpr auto kFcc = RegulatoryDomain::fcc;

int pick(const PowerCalibrationMap& map, int mcs, int wanted, int frequency,
         RegulatoryDomain domain = kOff, bool adc = true) {
    return findClosestPowerIndex(map, mcs, &wanted, frequency, domain, adc);
}

TEST(FindClosestPowerIndex, WithoutTableOrDetectorUsesTheFixedMaximaOfTheBand) {
    struct Case {
        int mcs, frequency;
        RegulatoryDomain domain;
        int index;
    };
    for (const Case& c : {Case{5, 2412, kFcc, 45}, Case{2, 2484, kOff, 39}, Case{0, 2485, kFcc, 30},
                          Case{5, 5200, kFcc, 30}, Case{5, 5340, kFcc, 30}, Case{5, 5500, kFcc, 58},
                          Case{5, 5200, kOff, 58}}) {
        int index = 0;
        Printed printed =
            capture_output([&] { index = pick({}, c.mcs, 25, c.frequency, c.domain, false); });
        EXPECT_EQ(index, c.index) << c.frequency << " MHz, MCS " << c.mcs;
        EXPECT_EQ(printed.err,
                  "Calibration file missing and ADC unavailable. Defaulting to max power idx for " +
                      std::to_string(c.frequency) + "MHz --> " + std::to_string(c.index) + "\n");
    }
}

TEST(FindClosestPowerIndex, FallsBackToNeighbouringMcsLowerFirst) {
    const PowerCalibrationMap map{{1, {{100, 11}}}, {4, {{100, 44}}}};
    EXPECT_EQ(pick(map, 3, 100, 5800), 11);
    EXPECT_EQ(pick({{4, {{100, 44}}}}, 2, 100, 5800), 44);
    Printed printed = capture_output([&] {
        EXPECT_EQ(pick({}, 3, 100, 5800), 1);
        EXPECT_EQ(pick({{9, {{100, 9}}}}, 8, 100, 5800), 1);
    });
    EXPECT_EQ(printed.err,
              "Power calibration data for MCS3 not found and no neighboring MCS available.\n"
              "Power calibration data for MCS8 not found and no neighboring MCS available.\n");
}

TEST(FindClosestPowerIndex, PicksTheNearestEntryAndTheLowerOnATie) {
    const PowerCalibrationMap map{{0, {{50, 5}, {100, 10}, {200, 20}}}};
    const std::pair<int, int> cases[] = {{150, 10}, {151, 20},  {100, 10},
                                         {10, 5},   {5000, 20}, {75, 5}};
    for (const auto& [wanted, index] : cases)
        EXPECT_EQ(pick(map, 0, wanted, 5800, kFcc), index) << wanted << " mW";
    EXPECT_EQ(pick({{0, {{-3, 7}}}}, 0, 10, 5800), 1);  // a negative end entry gives index 1
}

TEST(FindClosestPowerIndex, FccLowBandForcesTheWantedPowerTo200mW) {
    const PowerCalibrationMap map{{0, {{50, 5}, {200, 20}}}};
    int wanted = 50;
    Printed printed = capture_output(
        [&] { EXPECT_EQ(findClosestPowerIndex(map, 0, &wanted, 5180, kFcc, true), 20); });
    EXPECT_EQ(wanted, 200);
    EXPECT_EQ(printed.out, "Limiting power for frequency 5180 to max of 200mw (23dBm).\n");
    EXPECT_EQ(pick(map, 0, 50, 5320, kFcc), 20);
    EXPECT_EQ(pick(map, 0, 50, 5745, kFcc), 5);
    EXPECT_EQ(pick(map, 0, 50, 5200, kOff), 5);
}

class PowerFeedback : public testing::Test {
  protected:
    void SetUp() override {
        power_samples.clear();
        power_over_limit_cnt = 0;
        config.card = "wlan0";
        config.profiles = {vtx_profile_t{}};
        profile().power = 100;  // band 95 to 105 mW
        profile().power_idx = 20;
        control.active = true;
        control.averaging_depth = 3;
    }
    vtx_profile_t& profile() { return config.profiles[0]; }
    // Measured values are given in mW; half a milliwatt keeps them clear of truncation.
    void measure(double mw) {
        power_feedback_loop(&config, &control, 10.0 * std::log10(mw + 0.5), false);
    }
    static std::string set_to(int index) {
        return "iw dev wlan0 set txpower fixed " + std::to_string(index);
    }

    CommandStandIns commands;
    vtx_config_t config;
    PowerControl control;
};

TEST_F(PowerFeedback, StepsUpAndDownUntilInBandThenSettles) {
    measure(31);  // predates the change: dropped
    EXPECT_EQ(control.step_count, 1);
    EXPECT_TRUE(power_samples.empty());
    measure(31);
    measure(79);
    measure(107);  // above the band: back down
    EXPECT_EQ(control.direction, 2);
    measure(97);
    EXPECT_EQ(commands.calls(), (Strings{set_to(21), set_to(22), set_to(21)}));
    EXPECT_FALSE(control.active);
    EXPECT_EQ(control.step_count, 0);
    EXPECT_EQ(control.direction, 0);
    EXPECT_EQ(control.low_limit_mw, 95);
    EXPECT_TRUE(power_samples.empty());
}

TEST_F(PowerFeedback, SettlingRules) {
    // In band above the wanted power: one final step down.
    control.step_count = 1;
    control.tolerance = 0.25;
    measure(110);
    EXPECT_FALSE(control.active);
    EXPECT_EQ(control.tolerance, 0.05);
    EXPECT_EQ(control.low_limit_mw, 75);
    EXPECT_EQ(commands.calls(), Strings{set_to(19)});

    // Below after stepping down: settle on the level reached (profiles up to 999 mW).
    control = PowerControl{};
    control.active = true;
    control.step_count = 3;
    control.direction = 2;
    measure(60);
    EXPECT_FALSE(control.active);
    EXPECT_EQ(control.low_limit_mw, 60);

    EXPECT_EQ(commands.calls().size(), 1u);
}

TEST_F(PowerFeedback, LeavesTheIndexAloneWhenNothingIsToBeDone) {
    control.step_count = 1;
    control.low_limit_mw = 120;
    power_feedback_loop(&config, &control, 20.0, false);  // exactly the wanted 100 mW, out of band
    EXPECT_TRUE(control.active);
    EXPECT_EQ(control.step_count, 1);
    config.alt_power_enabled = true;
    measure(20);
    EXPECT_TRUE(control.active);
    config.alt_power_enabled = false;
    profile().power_idx = 63;  // not regulated
    measure(20);
    EXPECT_FALSE(control.active);
    EXPECT_TRUE(commands.calls().empty());

    commands.set_status("iw", 1);
    profile().power_idx = 20;
    control.active = true;
    Printed printed = capture_output([&] { measure(50); });
    EXPECT_EQ(printed.out, "Failed to set requested power setting.\n");
}

TEST_F(PowerFeedback, SteadyStateStepsDownOnTheSixthAverageOverTheLimit) {
    control.active = false;
    control.low_limit_mw = 95;
    for (int i = 0; i < 7; ++i)
        measure(200);
    EXPECT_EQ(power_over_limit_cnt, 5);
    EXPECT_TRUE(commands.calls().empty());
    measure(200);
    EXPECT_EQ(commands.calls(), Strings{set_to(19)});
    EXPECT_TRUE(power_samples.empty());
    for (int i = 0; i < 3; ++i)  // the excess persists: the next full window steps at once
        measure(200);
    EXPECT_EQ(commands.calls(), (Strings{set_to(19), set_to(18)}));
}

TEST_F(PowerFeedback, SteadyStateStepsUpOnALowAverageAndResetsOnAGoodOne) {
    control.active = false;
    control.low_limit_mw = 95;
    power_over_limit_cnt = 3;
    for (int mw : {50, 60, 70})
        measure(mw);
    EXPECT_EQ(power_over_limit_cnt, 0);
    EXPECT_TRUE(power_samples.empty());
    power_over_limit_cnt = 3;
    for (int mw : {90, 100, 110})
        measure(mw);
    EXPECT_EQ(power_over_limit_cnt, 0);
    EXPECT_TRUE(power_samples.empty());
    EXPECT_EQ(commands.calls(), Strings{set_to(21)});
}

TEST(SetPower, WritesTheAlternateIndexOnlyWithoutPrimaryOverride) {
    CommandStandIns commands;
    EXPECT_EQ(set_power("wlan1", 30, 7, false, true), 0);
    EXPECT_EQ(set_power("wlan1", 30, 7, true, true), 0);
    commands.set_status("iw", 3);
    EXPECT_EQ(set_power("wlan1", 30, 7, false, false), 3);
    Printed printed =
        capture_output([] { EXPECT_EQ(set_power("wlan1; reboot", 30, 7, false, false), -1); });
    EXPECT_EQ(printed.err, "Error: invalid interface name \"wlan1; reboot\"\n");
    EXPECT_EQ(commands.calls(),
              (Strings{"iw dev wlan1 set txpower fixed 7", "iw dev wlan1 set txpower fixed 30",
                       "iw dev wlan1 set txpower fixed 30"}));
}

}  // namespace
