// The conversion tables at their fixed places on the vehicle, /data/quillon/vtx/, here the
// simulated board's sandbox: a missing file reported on every lookup until it appears, each
// band loaded from its own file once, and the uncached lookup reading the file anew.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "capture_output.h"
#include "i2c-monitor.h"

namespace {

void write_table(const std::string& tag, const std::string& rows) {
    std::ofstream("/data/quillon/vtx/" + tag + "_mv_to_dbm.csv") << "mV,MCS0\n" << rows;
}

TEST(FixedPathTables, EachBandReadsItsOwnFileOnceItIsThere) {
    init_csv_cache_manager();
    for (const char* tag : {"2_4", "5_1", "5_8"})
        std::remove(("/data/quillon/vtx/" + std::string(tag) + "_mv_to_dbm.csv").c_str());
    double mv = -1, dbm = -1;
    const auto printed = orca_test::capture_output([&] {
        EXPECT_EQ(read_csv_data_cached(&mv, &dbm, 0, "5.1", 100), -1);
        EXPECT_EQ(read_csv_data_cached(&mv, &dbm, 0, "5.1", 100), -1);
    });
    EXPECT_EQ(printed.err,
              "Error opening csv dbm conversion file: No such file or directory\n"
              "Error opening csv dbm conversion file: No such file or directory\n");
    EXPECT_EQ(dbm, -1);  // untouched by the failures

    write_table("2_4", "100,1\n");
    write_table("5_1", "100,2\n");
    write_table("5_8", "100,3\n");
    for (auto [band, expected] : {std::pair{"2.4", 1.0}, {"5.1", 2.0}, {"5.8", 3.0}}) {
        ASSERT_EQ(read_csv_data_cached(&mv, &dbm, 0, band, 100), 0) << band;
        EXPECT_EQ(dbm, expected) << band;
    }
    write_table("5_8", "100,9\n");  // seen only by the uncached lookup
    ASSERT_EQ(read_csv_data_cached(&mv, &dbm, 0, "5.8", 100), 0);
    EXPECT_EQ(dbm, 3.0);
    ASSERT_EQ(read_csv_data(&mv, &dbm, 0, "5.8", 100), 0);
    EXPECT_EQ(dbm, 9.0);
}

}  // namespace
