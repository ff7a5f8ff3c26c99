#include <gtest/gtest.h>

#include "capture_output.h"
#include <orca-vtx/default_power_calibration.h>
#include <orca-vtx/orca-vtx-helpers.h>
#include "run_process.h"

using orca_test::capture_output;
using orca_test::Printed;

namespace {

using Table = std::map<int, int>;

TEST(PowerCalibrationLoad, ReadsMwColumnsAndReportsWhatItSkips) {
    PowerCalibrationMap map;
    Printed printed = capture_output([&] {
        map = loadPowerCalibrationDataFromString(
            "Power_Level,MCS0_mV,MCS0_mW,MCS_mW,MCS3_mW,xMCS2_mW,MCS9999999999_mW,MCS2_mW\n"
            "1,300,2.5,0,-2.5,0,0,NA\n"
            "2,301,12.4,0,-1.7,0,0,NA\n"
            "\n"
            "abc,302,1.0,0,1.0,0,0,1.0\n"
            "3,303,11.6\n"
            "4,304,-1.0,0,40.49,0,0,-1\r\n");
    });
    EXPECT_EQ(printed.err,
              "Error extracting MCS index from column name: MCS_mW\n"
              "Error extracting MCS index from column name: MCS9999999999_mW\n"
              "Error parsing power level: abc\n"
              "Not enough columns in line: 3,303,11.6\nNot enough columns in line: 3,303,11.6\n");
    // 12.4 and 11.6 both round to 12: the later row wins. -1, -1.0 and -1.7 mark cells that
    // were not measured. NA is unreadable, but its column's MCS is present all the same.
    EXPECT_EQ(map,
              (PowerCalibrationMap{{0, {{3, 1}, {12, 3}}}, {2, Table{}}, {3, {{-3, 1}, {40, 4}}}}));
}

TEST(PowerCalibrationLoad, FallsBackToTheEmbeddedDefaultAndAlwaysNormalises) {
    orca_test::TempDir dir;
    EXPECT_TRUE(loadPowerCalibrationData(dir.path() + "/absent.csv").empty());
    const std::string empty = dir.write_file("calibrated_5_8.csv", "Power_Level,MCS0_mW\n");
    const std::string file =
        dir.write_file("calibrated_2_4.csv", "Power_Level,MCS1_mW,MCS3_mW,MCS5_mW\n1,10,20,50\n");
    PowerCalibrationMap fallback, loaded;
    Printed printed = capture_output([&] {
        fallback = loadPowerCalibrationOrDefault(empty, default_cal::kCalibrated_5_8, "5.8");
        loaded = loadPowerCalibrationOrDefault(file, default_cal::kCalibrated_2_4, "2.4");
    });
    EXPECT_EQ(printed.err,
              "Calibration file " + empty + " missing or empty, using embedded default for 5.8.\n");
    EXPECT_EQ(fallback.size(), 8u);       // MCS 0, 1 and 3, and the copies
    EXPECT_EQ(fallback[3].at(1000), 60);  // levels 53 to 60 all read 1000 mW: the last one wins
    // Only MCS 1 and 3 are copied, and never over an MCS that is present.
    const Table mcs1{{10, 1}}, mcs3{{20, 1}};
    EXPECT_EQ(
        loaded,
        (PowerCalibrationMap{
            {1, mcs1}, {2, mcs1}, {3, mcs3}, {4, mcs3}, {5, {{50, 1}}}, {6, mcs3}, {7, mcs3}}));
    PowerCalibrationMap untouched{{0, {{1, 1}}}, {2, {{2, 2}}}};
    normalizeMcsCoverage(untouched);
    EXPECT_EQ(untouched, (PowerCalibrationMap{{0, {{1, 1}}}, {2, {{2, 2}}}}));
    EXPECT_EQ(capture_output([&] { printPowerMap(untouched); }).err,
              "MCS Index: 0\n  Output Power (mW): 1 -> Power Index: 1\n\n"
              "MCS Index: 2\n  Output Power (mW): 2 -> Power Index: 2\n\n");
}

}  // namespace
