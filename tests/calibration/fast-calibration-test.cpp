// The arithmetic of a fast run on results in memory: which anchors it cannot do without, and
// the levels it estimates from the default table shifted by the anchors' offsets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include "calibration-run.h"
#include "capture_output.h"
#include "i2c-monitor.h"
#include "listed_calibration_tables.h"
#include "run_process.h"

namespace {

using orca_test::capture_output;
using orca_test::listed_mv;

const int kAnchors[] = {10, 35, 45, 50, 56, 60};

// A result whose anchors read their listed 5.1 GHz MCS 0 voltage plus `offset(anchor)`.
template <typename Offset>
CalibrationResult anchors_at(Offset offset) {
    CalibrationResult result = {};
    for (int anchor : kAnchors) {
        result.measured[anchor] = true;
        result.mV[anchor] = listed_mv("5_1", 0, anchor) + offset(anchor);
        result.mW[anchor] = 1.0;
    }
    return result;
}

bool is_anchor(int level) {
    return std::find(std::begin(kAnchors), std::end(kAnchors), level) != std::end(kAnchors);
}

std::string missing_message(int level) {
    return "Error: fast calibration anchor power level " + std::to_string(level) +
           " did not produce a valid measured reading. Aborting without writing CSV.\n";
}

class FastCalibration : public testing::Test {
  protected:
    // Every voltage of the 5.1 table converts to 10 dBm, so every estimate to 10 mW.
    void SetUp() override {
        init_csv_cache_manager();
        const std::string table = dir_.write_file(
            "5_1_mv_to_dbm.csv",
            "mV,MCS0,MCS1,MCS2,MCS3,MCS4,MCS5,MCS6,MCS7\n500,10,10,10,10,10,10,10,10\n");
        ASSERT_EQ(load_csv_cache(get_csv_cache_for_freq("5.1"), table.c_str()), 0);
    }
    orca_test::Printed estimate(CalibrationResult* result, int mcs = 0, int stop_level = 0) {
        return capture_output(
            [&] { estimate_unmeasured_levels(result, "5_1", "5.1", mcs, stop_level); });
    }
    orca_test::TempDir dir_;
};

TEST_F(FastCalibration, MissingAnchorsAreReportedUpToTheStopLevel) {
    const struct {
        std::vector<int> measured;
        int stop_level;
        std::vector<int> reported;
    } cases[] = {
        {{10, 35, 45, 50, 56, 60}, 0, {}},
        {{}, 0, {10, 35, 45, 50, 56, 60}},
        {{10, 50, 56, 60}, 0, {35, 45}},
        // After a stop at 45 only the anchors up to it count.
        {{10, 35, 45}, 45, {}},
        {{10}, 45, {35, 45}},
        {{10, 35}, 44, {}},
        // Any measured level 1 to 60 counts, whatever it holds; others are not anchors.
        {{1, 9, 11, 61, 63}, 0, {10, 35, 45, 50, 56, 60}},
    };
    for (const auto& c : cases) {
        CalibrationResult result = {};
        for (int level : c.measured)
            result.measured[level] = true;
        std::string expected;
        for (int level : c.reported)
            expected += missing_message(level);
        int missing = -1;
        const auto printed =
            capture_output([&] { missing = report_missing_anchors(&result, c.stop_level); });
        EXPECT_EQ(printed.err, expected) << "stop " << c.stop_level;
        EXPECT_EQ(printed.out, "");
        EXPECT_EQ(missing, static_cast<int>(c.reported.size()));
    }
}

TEST_F(FastCalibration, OffsetsAreCarriedDownAndInterpolatedBetweenAnchors) {
    // Offsets that grow by 0.5 mV per level: linear between the anchors, so every level
    // from 10 up gets half its number, and below 10 the offset of anchor 10.
    CalibrationResult result = anchors_at([](int anchor) { return anchor * 0.5; });
    const auto printed = estimate(&result);
    EXPECT_EQ(printed.out, "Generating estimated fast calibration rows from measured anchors...\n");
    for (int level = 1; level <= 60; ++level) {
        ASSERT_TRUE(result.measured[level]) << level;
        EXPECT_NEAR(result.mV[level], listed_mv("5_1", 0, level) + 0.5 * std::max(level, 10), 1e-9)
            << level;
        EXPECT_EQ(result.mW[level], is_anchor(level) ? 1.0 : 10.0) << level;
    }
    for (int level = 61; level <= 63; ++level)
        EXPECT_FALSE(result.measured[level]) << level;

    // Uneven offsets: 40 lies halfway between 35 (+20) and 45 (-10); 58 halfway between 56
    // (+4) and 60 (+8). A level measured before keeps what it has.
    result = anchors_at([](int anchor) {
        return anchor == 35   ? 20.0
               : anchor == 45 ? -10.0
               : anchor == 56 ? 4.0
               : anchor == 60 ? 8.0
                              : 0.0;
    });
    result.measured[40] = true;
    result.mV[40] = 123.0;
    estimate(&result);
    EXPECT_EQ(result.mV[40], 123.0);
    EXPECT_NEAR(result.mV[38], listed_mv("5_1", 0, 38) + 20.0 - 0.3 * 30.0, 1e-9);
    EXPECT_NEAR(result.mV[58], listed_mv("5_1", 0, 58) + 6.0, 1e-9);
}

TEST_F(FastCalibration, StopsTheFloorAndMissingDefaultsLeaveRowsAsTheyAre) {
    // A temperature stop at 45: it gives no offset, 36 to 44 take that of 35, and nothing
    // above 45 is estimated.
    CalibrationResult result = {};
    for (int anchor : {10, 35})
        result.measured[anchor] = true, result.mV[anchor] = listed_mv("5_1", 0, anchor) + 7.0;
    result.measured[45] = true;
    result.mV[45] = -9999.0;
    auto printed = estimate(&result, 0, 45);
    EXPECT_EQ(printed.out,
              "Generating estimated fast calibration rows from measured anchors...\n"
              "Safety stop occurred at power level 45; rows above that level will remain "
              "uncalibrated\n");
    EXPECT_NEAR(result.mV[44], listed_mv("5_1", 0, 44) + 7.0, 1e-9);
    EXPECT_EQ(result.mV[45], -9999.0);
    for (int level = 46; level <= 63; ++level)
        EXPECT_FALSE(result.measured[level]) << level;

    // No usable anchor at all: the plain defaults; an offset that would go below 1 mV stops
    // at 1 mV.
    result = {};
    estimate(&result);
    EXPECT_EQ(result.mV[20], listed_mv("5_1", 0, 20));
    result = anchors_at([](int) { return -5000.0; });
    estimate(&result);
    EXPECT_EQ(result.mV[20], 1.0);
    EXPECT_EQ(result.mW[20], 10.0);

    // MCS 2 has no default column: every level but the anchors is left out.
    result = {};
    printed = estimate(&result, 2);
    std::string warnings = "Generating estimated fast calibration rows from measured anchors...\n";
    for (int level = 1; level <= 60; ++level)
        if (!is_anchor(level))
            warnings += "Warning: No embedded default mV lookup for power level " +
                        std::to_string(level) + ", leaving row uncalibrated\n";
    EXPECT_EQ(printed.out, warnings);
    for (int level = 1; level <= 63; ++level)
        EXPECT_FALSE(result.measured[level]) << level;

    // A band whose table cannot be loaded: each level says so and stays out.
    std::remove("/data/quillon/vtx/5_8_mv_to_dbm.csv");  // the simulated board's
    result = {};
    printed = capture_output([&] { estimate_unmeasured_levels(&result, "5_8", "5.8", 0, 12); });
    EXPECT_NE(printed.out.find("Warning: Failed to convert estimated mV to dBm for power level 1, "
                               "leaving row uncalibrated\n"),
              std::string::npos);
    EXPECT_NE(printed.out.find("power level 11, leaving row uncalibrated\n"), std::string::npos);
    for (int level = 1; level <= 63; ++level)
        EXPECT_FALSE(result.measured[level]) << level;
}

}  // namespace
