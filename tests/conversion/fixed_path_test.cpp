// The conversion tables at their fixed places on the vehicle, /data/quillon/vtx/, here the
// simulated board's sandbox: loaded on first use per band, a missing file reported on every
// lookup, and the uncached lookup reading the file anew each time.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "i2c-monitor.h"

namespace {

const std::string kHeader = "mV,MCS0,MCS1,MCS2,MCS3,MCS4,MCS5,MCS6,MCS7\n";

void write_table(const std::string& tag, const std::string& rows) {
    mkdir("/data", 0755);
    mkdir("/data/quillon", 0755);
    mkdir("/data/quillon/vtx", 0755);
    std::ofstream("/data/quillon/vtx/" + tag + "_mv_to_dbm.csv") << kHeader << rows;
}

class FixedPathTables : public ::testing::Test {
  protected:
    void SetUp() override {
        init_csv_cache_manager();
        for (const char* tag : {"2_4", "5_1", "5_8"})
            std::remove(("/data/quillon/vtx/" + std::string(tag) + "_mv_to_dbm.csv").c_str());
    }
    double mv_ = -1, dbm_ = -1;
};

TEST_F(FixedPathTables, EachBandLoadsItsOwnFileOnceOnFirstUse) {
    write_table("2_4", "100,1\n");
    write_table("5_1", "100,2\n");
    write_table("5_8", "100,3\n");
    for (auto [band, dbm] : {std::pair{"2.4", 1.0}, {"5.1", 2.0}, {"5.8", 3.0}}) {
        ASSERT_EQ(read_csv_data_cached(&mv_, &dbm_, 0, band, 100), 0) << band;
        EXPECT_EQ(dbm_, dbm) << band;
    }
    write_table("5_8", "100,9\n");  // seen only by the uncached lookup
    ASSERT_EQ(read_csv_data_cached(&mv_, &dbm_, 0, "5.8", 100), 0);
    EXPECT_EQ(dbm_, 3.0);
    ASSERT_EQ(read_csv_data(&mv_, &dbm_, 0, "5.8", 100), 0);
    EXPECT_EQ(dbm_, 9.0);
}

TEST_F(FixedPathTables, AMissingFileIsReportedOnEveryLookupUntilItAppears) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(read_csv_data_cached(&mv_, &dbm_, 0, "5.1", 100), -1);
    EXPECT_EQ(read_csv_data_cached(&mv_, &dbm_, 0, "5.1", 100), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error opening csv dbm conversion file: No such file or directory\n"
              "Error opening csv dbm conversion file: No such file or directory\n");
    EXPECT_EQ(dbm_, -1);  // untouched by the failures

    write_table("5_1", "100,4\n");
    ASSERT_EQ(read_csv_data_cached(&mv_, &dbm_, 0, "5.1", 100), 0);
    EXPECT_EQ(dbm_, 4.0);
}

}  // namespace
