// The uncached lookup: how it differs from the cached one, and the fixed path it reads.
#include "i2c-monitor.h"
#include "mv-to-dbm-file.h"
#include "run_process.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class UncachedTableTest : public ::testing::Test {
  protected:
    double lookup(const std::string& rows, int mcs, double mv) {
        std::string path = dir_.write_file("table.csv", "header\n" + rows);
        double mv_out = -1, dbm_out = -1;
        EXPECT_EQ(read_csv_data_from_file(path.c_str(), &mv_out, &dbm_out, mcs, mv), 0);
        EXPECT_EQ(mv_out, mv);
        return dbm_out;
    }

    orca_test::TempDir dir_;
};

TEST_F(UncachedTableTest, ReadsAnyColumnAndSkipsRowsLackingIt) {
    EXPECT_EQ(lookup("100,0\n200,10\n", 0, 125), 0);
    EXPECT_EQ(lookup("100,0\n200,10\n", -1, 150), 150);  // negative MCS: the mV column
    EXPECT_EQ(lookup("100,0\n200,10\n", -7, 120), 100);
    const std::string ten_fields = "100,0,0,0,0,0,0,0,0,5\n200,0,0,0,0,0,0,0,0,9\n";
    EXPECT_EQ(lookup(ten_fields, 8, 150), 7);
    EXPECT_EQ(lookup(ten_fields, 9, 150), 0);
    EXPECT_EQ(lookup(ten_fields, 2147483647, 150), 0);
    // The short row is skipped, so 150 mV sits mid-bracket; the cache reads it as 0 dBm.
    EXPECT_EQ(lookup("100,0\n150\n200,10\n", 0, 150), 5);

    std::string rows;
    for (int mv = 1; mv <= 1200; ++mv)
        rows += std::to_string(mv) + (mv <= 1000 ? ",1\n" : ",2\n");
    EXPECT_EQ(lookup(rows, 0, 1100), 2);  // no row limit
}

TEST_F(UncachedTableTest, FailuresReportAndLeaveTheOutputsAlone) {
    double mv_out = 42, dbm_out = 43;
    std::string empty = dir_.write_file("empty.csv", "");
    std::string missing = dir_.path() + "/missing.csv";
    testing::internal::CaptureStderr();
    EXPECT_EQ(read_csv_data_from_file(empty.c_str(), &mv_out, &dbm_out, 0, 1), -1);
    EXPECT_EQ(read_csv_data_from_file(missing.c_str(), &mv_out, &dbm_out, 0, 1), -1);
    EXPECT_EQ(read_csv_data(&mv_out, &dbm_out, 0, nullptr, 1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error reading CSV header\n"
              "Error opening csv dbm conversion file: No such file or directory\n"
              "Invalid frequency: (null)\\n");
    EXPECT_EQ(mv_out, 42);
    EXPECT_EQ(dbm_out, 43);
}

TEST(ConversionPathTest, TagReplacesPointsAndKeepsNineCharacters) {
    char path[256];
    format_conversion_path("2.4", path, sizeof path);
    EXPECT_STREQ(path, "/data/quillon/vtx/2_4_mv_to_dbm.csv");
    format_conversion_path("12345.789.123", path, sizeof path);
    EXPECT_STREQ(path, "/data/quillon/vtx/12345_789_mv_to_dbm.csv");
}

}  // namespace
