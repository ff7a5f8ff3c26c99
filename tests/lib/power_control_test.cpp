#include <cmath>

#include <gtest/gtest.h>

#include "capture_output.h"
#include "command_stand_ins.h"
#include "orca-vtx-helpers.h"

namespace {

using Strings = std::vector<std::string>;

TEST(FindClosestPowerIndex, WithoutTableOrDetectorUsesTheFixedMaximaOfTheBand) {
    struct Case {
        int mcs, frequency;
        RegulatoryDomain domain;
        int index;
    };
    const Case cases[] = {
        {5, 2412, RegulatoryDomain::fcc, 45}, {2, 2484, RegulatoryDomain::off, 39},
        {0, 2485, RegulatoryDomain::fcc, 30}, {5, 5200, RegulatoryDomain::fcc, 30},
        {5, 5340, RegulatoryDomain::fcc, 30}, {5, 5500, RegulatoryDomain::fcc, 58},
        {5, 5200, RegulatoryDomain::off, 58},
    };
    for (const Case& c : cases) {
        int wanted = 25;
        int index = 0;
        Printed printed = capture_output([&] {
            index = findClosestPowerIndex({}, c.mcs, &wanted, c.frequency, c.domain, false);
        });
        EXPECT_EQ(index, c.index) << c.frequency << " MHz, MCS " << c.mcs;
        EXPECT_EQ(printed.err,
                  "Calibration file missing and ADC unavailable. Defaulting to max "
                  "power idx for " +
                      std::to_string(c.frequency) + "MHz --> " + std::to_string(c.index) + "\n");
        EXPECT_EQ(wanted, 25);
    }
}

TEST(FindClosestPowerIndex, FallsBackToNeighbouringMcsLowerFirst) {
    const PowerCalibrationMap map{{1, {{100, 11}}}, {4, {{100, 44}}}};
    int wanted = 100;
    EXPECT_EQ(findClosestPowerIndex(map, 3, &wanted, 5800, RegulatoryDomain::off, true), 11);
    EXPECT_EQ(findClosestPowerIndex(map, 0, &wanted, 5800, RegulatoryDomain::off, true), 11);
    EXPECT_EQ(
        findClosestPowerIndex({{4, {{100, 44}}}}, 2, &wanted, 5800, RegulatoryDomain::off, true),
        44);

    Printed printed = capture_output([&] {
        EXPECT_EQ(findClosestPowerIndex({}, 3, &wanted, 5800, RegulatoryDomain::off, true), 1);
        EXPECT_EQ(
            findClosestPowerIndex({{9, {{100, 9}}}}, 8, &wanted, 5800, RegulatoryDomain::off, true),
            1);
    });
    EXPECT_EQ(printed.err,
              "Power calibration data for MCS3 not found and no neighboring MCS available.\n"
              "Power calibration data for MCS8 not found and no neighboring MCS available.\n");
}

TEST(FindClosestPowerIndex, PicksTheNearestEntryAndTheLowerOnATie) {
    const PowerCalibrationMap map{{0, {{50, 5}, {100, 10}, {200, 20}}}};
    struct Case {
        int wanted, index;
    };
    for (const Case& c : {Case{150, 10}, Case{151, 20}, Case{100, 10}, Case{10, 5}, Case{5000, 20},
                          Case{76, 10}, Case{75, 5}}) {
        int wanted = c.wanted;
        EXPECT_EQ(findClosestPowerIndex(map, 0, &wanted, 5800, RegulatoryDomain::fcc, true),
                  c.index)
            << c.wanted << " mW";
    }
    // A table that starts or ends below zero milliwatts gives the lowest index at its ends.
    int wanted = 10;
    EXPECT_EQ(
        findClosestPowerIndex({{0, {{-3, 7}}}}, 0, &wanted, 5800, RegulatoryDomain::off, true), 1);
}

TEST(FindClosestPowerIndex, FccLowBandForcesTheWantedPowerTo200mW) {
    const PowerCalibrationMap map{{0, {{50, 5}, {200, 20}}}};
    for (int frequency : {5180, 5320}) {
        int wanted = 50;
        int index = 0;
        Printed printed = capture_output([&] {
            index = findClosestPowerIndex(map, 0, &wanted, frequency, RegulatoryDomain::fcc, true);
        });
        EXPECT_EQ(index, 20);
        EXPECT_EQ(wanted, 200);
        EXPECT_EQ(printed.out, "Limiting power for frequency " + std::to_string(frequency) +
                                   " to max of 200mw (23dBm).\n");
    }
    int wanted = 50;
    EXPECT_EQ(findClosestPowerIndex(map, 0, &wanted, 5745, RegulatoryDomain::fcc, true), 5);
    EXPECT_EQ(findClosestPowerIndex(map, 0, &wanted, 5200, RegulatoryDomain::off, true), 5);
    EXPECT_EQ(wanted, 50);
}

double dbm(double mw) {
    return 10.0 * std::log10(mw);
}

class PowerFeedback : public testing::Test {
  protected:
    void SetUp() override {
        power_samples.clear();
        power_over_limit_cnt = 0;
        config.card = "wlan0";
        config.profiles = {vtx_profile_t{}};
        profile().power = 100;
        profile().power_idx = 20;
        profile().alt_power_idx = 5;
        control.active = true;
        control.averaging_depth = 3;
    }
    vtx_profile_t& profile() { return config.profiles[0]; }
    void measure(double mw) { power_feedback_loop(&config, &control, dbm(mw), false); }
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
    measure(107.2);  // above the band: back down
    EXPECT_EQ(control.direction, 2);
    EXPECT_EQ(control.index_offset, 1);
    measure(97.8);
    EXPECT_EQ(commands.calls(), (Strings{set_to(21), set_to(22), set_to(21)}));
    EXPECT_FALSE(control.active);
    EXPECT_EQ(control.step_count, 0);
    EXPECT_EQ(control.direction, 0);
    EXPECT_EQ(control.low_limit_mw, 95);
    EXPECT_TRUE(power_samples.empty());
}

TEST_F(PowerFeedback, InBandAboveTheWantedPowerTrimsOneStepDown) {
    control.step_count = 1;
    control.tolerance = 0.25;
    measure(110.5);
    EXPECT_FALSE(control.active);
    EXPECT_EQ(control.tolerance, 0.05);
    EXPECT_EQ(control.index_offset, -1);
    EXPECT_EQ(control.low_limit_mw, 75);
    EXPECT_EQ(commands.calls(), Strings{set_to(19)});
}

TEST_F(PowerFeedback, BelowAfterStepsDownSettlesOnTheMeasuredLevel) {
    control.step_count = 3;
    control.direction = 2;
    measure(60.5);
    EXPECT_FALSE(control.active);
    EXPECT_EQ(control.low_limit_mw, 60);  // a profile of at most 999 mW keeps what it reached
    EXPECT_EQ(control.index_offset, 0);
    EXPECT_TRUE(commands.calls().empty());
}

TEST_F(PowerFeedback, StopsAtTheEndsOfTheIndexRange) {
    control.step_count = 1;
    profile().power_idx = 63 - 1;
    control.index_offset = 1;
    measure(10.2);  // 64 does not exist: settle where it is
    EXPECT_FALSE(control.active);
    EXPECT_EQ(control.index_offset, 1);

    control = PowerControl{};
    control.active = true;
    control.step_count = 1;
    profile().power = 2000;
    profile().power_idx = 1;
    measure(5000.5);  // index 0 does not exist either; the offset stays stepped down
    EXPECT_FALSE(control.active);
    EXPECT_EQ(control.index_offset, -1);
    EXPECT_EQ(control.low_limit_mw, 1900);  // above 999 mW the tolerance band's edge
    EXPECT_TRUE(commands.calls().empty());
}

TEST_F(PowerFeedback, LeavesTheIndexAloneWhenNothingIsToBeDone) {
    control.step_count = 1;
    control.low_limit_mw = 120;
    measure(100);  // outside the band but exactly the wanted power
    EXPECT_TRUE(control.active);
    EXPECT_EQ(control.step_count, 1);

    config.alt_power_enabled = true;
    measure(20.5);
    EXPECT_TRUE(control.active);

    config.alt_power_enabled = false;
    profile().power_idx = 63;  // not regulated
    measure(20.5);
    EXPECT_FALSE(control.active);
    EXPECT_TRUE(commands.calls().empty());
}

TEST_F(PowerFeedback, ReportsAPowerSettingThatFails) {
    commands.set_status("iw", 1);
    control.step_count = 1;
    Printed printed = capture_output([&] { measure(50.5); });
    EXPECT_EQ(printed.out, "Failed to set requested power setting.\n");
}

TEST_F(PowerFeedback, SteadyStateStepsDownOnTheSixthAverageOverTheLimit) {
    control.active = false;
    control.low_limit_mw = 95;
    for (int i = 0; i < 7; ++i)
        measure(200.5);
    EXPECT_EQ(power_over_limit_cnt, 5);
    EXPECT_TRUE(commands.calls().empty());
    measure(200.5);
    EXPECT_EQ(commands.calls(), Strings{set_to(19)});
    EXPECT_TRUE(power_samples.empty());
    // The excess persists: the next full window steps down at once.
    for (int i = 0; i < 3; ++i)
        measure(200.5);
    EXPECT_EQ(commands.calls(), (Strings{set_to(19), set_to(18)}));
}

TEST_F(PowerFeedback, SteadyStateStepsUpOnALowAverageAndResetsOnAGoodOne) {
    control.active = false;
    control.low_limit_mw = 95;
    power_over_limit_cnt = 3;
    for (int mw : {50, 60, 70})
        measure(mw + 0.5);
    EXPECT_EQ(power_over_limit_cnt, 0);
    EXPECT_EQ(control.index_offset, 1);
    EXPECT_TRUE(power_samples.empty());
    power_over_limit_cnt = 3;
    for (int mw : {90, 100, 110})
        measure(mw + 0.5);
    EXPECT_EQ(power_over_limit_cnt, 0);
    EXPECT_TRUE(power_samples.empty());
    EXPECT_EQ(commands.calls(), Strings{set_to(21)});
}

TEST(SetPower, WritesTheAlternateIndexOnlyWithoutPrimaryOverride) {
    CommandStandIns commands;
    EXPECT_EQ(set_power("wlan1", 30, 7, false, true), 0);
    EXPECT_EQ(set_power("wlan1", 30, 7, true, true), 0);
    EXPECT_EQ(set_power("wlan1", 30, 7, false, false), 0);
    commands.set_status("iw", 3);
    EXPECT_EQ(set_power("wlan1", 30, 7, false, false), 3);
    Printed printed =
        capture_output([] { EXPECT_EQ(set_power("wlan1; reboot", 30, 7, false, false), -1); });
    EXPECT_EQ(printed.err, "Error: invalid interface name \"wlan1; reboot\"\n");
    EXPECT_EQ(commands.calls(),
              (Strings{"iw dev wlan1 set txpower fixed 7", "iw dev wlan1 set txpower fixed 30",
                       "iw dev wlan1 set txpower fixed 30", "iw dev wlan1 set txpower fixed 30"}));
}

}  // namespace
