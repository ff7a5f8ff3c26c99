#include <gtest/gtest.h>

#include "capture_output.h"
#include "default_power_calibration.h"
#include "orca-vtx-helpers.h"
#include "run_process.h"

namespace {

using Table = std::map<int, int>;

TEST(PowerCalibrationLoad, ReadsMwColumnsRoundingHalvesAwayFromZero) {
    PowerCalibrationMap map;
    Printed printed = capture_output([&] {
        map = loadPowerCalibrationDataFromString(
            "Power_Level,MCS0_mV,MCS0_mW,MCS3_mV,MCS3_mW\n"
            "1,300.00,2.5,310.00,-2.5\n"
            "2,301.00,12.4,311.00,NA\n"
            "3,302.00,11.6,312.00,-1.7\n"
            "4,303.00,-1.0,313.00,40.49\r\n");
    });
    EXPECT_EQ(printed.err, "");
    // 12.4 and 11.6 both round to 12: the later row wins. -1, -1.0 and -1.7 mark cells that
    // were not measured; NA is unreadable. The _mV columns are never read.
    EXPECT_EQ(map,
              (PowerCalibrationMap{{0, Table{{3, 1}, {12, 3}}}, {3, Table{{-3, 1}, {40, 4}}}}));
}

TEST(PowerCalibrationLoad, BadHeadersAndRowsAreReportedAndSkipped) {
    PowerCalibrationMap map;
    Printed printed = capture_output([&] {
        map = loadPowerCalibrationDataFromString(
            "Power_Level,MCS_mW,MCS1_mW,xMCS2_mW,MCS5_mV,MCS9999999999_mW,MCS2_mW\n"
            "\n"
            "abc,0,1.0,0,0,0,2.0\n"
            "7,0\n"
            "8,0,NA,0,0,0,NA\n");
    });
    EXPECT_EQ(printed.err,
              "Error extracting MCS index from column name: MCS_mW\n"
              "Error extracting MCS index from column name: MCS9999999999_mW\n"
              "Error parsing power level: abc\n"
              "Not enough columns in line: 7,0\nNot enough columns in line: 7,0\n");
    // Columns without a single readable cell still make their MCS present.
    EXPECT_EQ(map, (PowerCalibrationMap{{1, Table{}}, {2, Table{}}}));
}

TEST(PowerCalibrationLoad, FileFallsBackToTheEmbeddedDefaultAndIsNormalised) {
    orca_test::TempDir dir;
    const std::string header_only = dir.write_file("calibrated_5_8.csv", "Power_Level,MCS0_mW\n");
    EXPECT_TRUE(loadPowerCalibrationData(header_only).empty());
    EXPECT_TRUE(loadPowerCalibrationData(dir.path() + "/absent.csv").empty());

    PowerCalibrationMap map;
    Printed printed = capture_output([&] {
        map = loadPowerCalibrationOrDefault(header_only, default_cal::kCalibrated_5_8, "5.8");
    });
    EXPECT_EQ(printed.err, "Calibration file " + header_only +
                               " missing or empty, using embedded default for 5.8.\n");
    ASSERT_EQ(map.size(), 8u);
    EXPECT_EQ(map[2], map[1]);
    EXPECT_EQ(map[7], map[3]);
    EXPECT_EQ(map[0].at(6), 2);               // 6.31 mW at level 2
    EXPECT_EQ(map[3].at(1000), 60);           // levels 53 to 60 all read 1000 mW: the last one wins
    EXPECT_EQ(map[3].rbegin()->first, 1000);  // levels 61 to 63 are not measured

    const std::string file =
        dir.write_file("calibrated_2_4.csv", "Power_Level,MCS1_mW,MCS3_mW\n1,10,20\n");
    printed = capture_output(
        [&] { map = loadPowerCalibrationOrDefault(file, default_cal::kCalibrated_2_4, "2.4"); });
    EXPECT_EQ(printed.err, "");
    EXPECT_EQ(map, (PowerCalibrationMap{{1, {{10, 1}}},
                                        {2, {{10, 1}}},
                                        {3, {{20, 1}}},
                                        {4, {{20, 1}}},
                                        {5, {{20, 1}}},
                                        {6, {{20, 1}}},
                                        {7, {{20, 1}}}}));
}

TEST(PowerCalibrationLoad, NormalisationCopiesOnlyFromMcs1And3AndNeverOverwrites) {
    PowerCalibrationMap untouched{{0, {{1, 1}}}, {2, {{2, 2}}}};
    normalizeMcsCoverage(untouched);
    EXPECT_EQ(untouched, (PowerCalibrationMap{{0, {{1, 1}}}, {2, {{2, 2}}}}));

    PowerCalibrationMap partial{{3, {{30, 3}}}, {5, {{50, 5}}}};
    normalizeMcsCoverage(partial);
    EXPECT_EQ(partial,
              (PowerCalibrationMap{
                  {3, {{30, 3}}}, {4, {{30, 3}}}, {5, {{50, 5}}}, {6, {{30, 3}}}, {7, {{30, 3}}}}));
}

TEST(PowerCalibrationLoad, PrintsTheMapAscending) {
    Printed printed = capture_output([] {
        printPowerMap({{3, {{40, 9}, {5, 2}}}, {0, {{-3, 1}}}});
    });
    EXPECT_EQ(printed.out, "");
    EXPECT_EQ(printed.err,
              "MCS Index: 0\n  Output Power (mW): -3 -> Power Index: 1\n\n"
              "MCS Index: 3\n  Output Power (mW): 5 -> Power Index: 2\n"
              "  Output Power (mW): 40 -> Power Index: 9\n\n");
}

}  // namespace
