// The cached mV-to-dBm lookup: file format, nearest-row rules, row limit and the cache.
#include "i2c-monitor.h"
#include "run_process.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>

namespace {

const std::string kHeader = "mV,MCS0,MCS1,MCS2,MCS3,MCS4,MCS5,MCS6,MCS7\n";

class CachedTableTest : public ::testing::Test {
  protected:
    void SetUp() override { init_csv_cache_manager(); }

    // Loads `rows` (below a header) into the 2.4 cache, replacing what it held.
    std::string load(const std::string& rows, const std::string& header = kHeader) {
        init_csv_cache_manager();
        std::string path = dir_.write_file("2_4_mv_to_dbm.csv", header + rows);
        EXPECT_EQ(load_csv_cache(get_csv_cache_for_freq("2.4"), path.c_str()), 0);
        return path;
    }

    double lookup(double mv, int mcs = 0) {
        double mv_out = -1, dbm_out = -1;
        EXPECT_EQ(read_csv_data_cached(&mv_out, &dbm_out, mcs, "2.4", mv), 0);
        EXPECT_EQ(mv_out, mv);
        return dbm_out;
    }

    orca_test::TempDir dir_;
};

TEST_F(CachedTableTest, MiddleHalfAveragesAndEndsReadTheNearestRow) {
    load("100,0\n200,10\n");
    const std::pair<double, double> cases[] = {
        {150, 5}, {130, 5},  {170, 5},  // middle half
        {120, 0}, {180, 10},            // nearer end
        {125, 0},                       // midpoint as near as the end: the end stands
        {50, 0},  {500, 10},            // no extrapolation
        {100, 0}, {200, 10}};
    for (auto [mv, dbm] : cases)
        EXPECT_EQ(lookup(mv), dbm) << "at " << mv << " mV";
}

TEST_F(CachedTableTest, MeanIsRoundedToHalfDbWithHalvesAwayFromZero) {
    load("100,0.3\n200,0.4\n");
    EXPECT_EQ(lookup(150), 0.5);
    load("100,0.25\n200,0.25\n");
    EXPECT_EQ(lookup(150), 0.5);
    load("100,-0.25\n200,-0.25\n");
    EXPECT_EQ(lookup(150), -0.5);
}

TEST_F(CachedTableTest, EarlierRowsAndTiesFollowTheScanOrder) {
    // A middle-half bracket overrides an exact earlier match.
    load("150,7\n100,0\n200,10\n");
    EXPECT_EQ(lookup(150), 5);
    // A closer earlier row survives a nearer-end bracket...
    load("118,3\n100,0\n200,10\n");
    EXPECT_EQ(lookup(120), 3);
    // ...and so does an equally near one, at either end of the bracket.
    load("140,7\n100,0\n200,10\n");
    EXPECT_EQ(lookup(120), 7);
    load("160,7\n100,0\n200,10\n");
    EXPECT_EQ(lookup(180), 7);
}

TEST_F(CachedTableTest, FieldsFollowTheCommaRules) {
    load("100,,5\n");
    EXPECT_EQ(lookup(100), 5);
    load("100,0,1,2,3,4,5,6,7,99\n");
    EXPECT_EQ(lookup(100, 7), 7);  // MCS 7 is field 9; field 10 is ignored
    load("100,1,2\n");
    EXPECT_EQ(lookup(100, 1), 2);
    EXPECT_EQ(lookup(100, 2), 0);  // missing trailing field
    load("100,12dB,abc\n");
    EXPECT_EQ(lookup(100, 0), 12);
    EXPECT_EQ(lookup(100, 1), 0);
}

TEST_F(CachedTableTest, EmptyLinesAreRowsAndCommaOnlyLinesAreNot) {
    load("100,4\n\n");
    EXPECT_EQ(lookup(0), 0);  // the empty line is a row at 0 mV
    load("100,4\n,,,,");
    EXPECT_EQ(lookup(0), 4);
    EXPECT_EQ(get_csv_cache_for_freq("2.4")->row_count, 1);
}

TEST_F(CachedTableTest, LinesAreReadIn1023CharacterPieces) {
    load("150,8\n", std::string(1023, 'h'));  // the header's tail is the first row
    EXPECT_EQ(lookup(150), 8);
    load("100,4" + std::string(1018, ',') + "300,9\n");
    EXPECT_EQ(get_csv_cache_for_freq("2.4")->row_count, 2);
    EXPECT_EQ(lookup(300), 9);
}

TEST_F(CachedTableTest, OnlyTheFirstThousandRowsAreKept) {
    std::string rows;
    for (int mv = 1; mv <= 1200; ++mv)
        rows += std::to_string(mv) + (mv <= 1000 ? ",1\n" : ",2\n");
    load(rows);
    EXPECT_EQ(get_csv_cache_for_freq("2.4")->row_count, 1000);
    EXPECT_EQ(lookup(1100), 1);
}

TEST_F(CachedTableTest, HeaderOnlyTableReadsZeroDbm) {
    load("");
    EXPECT_TRUE(get_csv_cache_for_freq("2.4")->loaded);
    EXPECT_EQ(lookup(500, 3), 0.0);
}

TEST_F(CachedTableTest, LoadedBandIsNotReadAgain) {
    std::string path = load("100,0\n200,10\n");
    dir_.write_file("2_4_mv_to_dbm.csv", kHeader + "100,30\n");
    EXPECT_EQ(load_csv_cache(get_csv_cache_for_freq("2.4"), path.c_str()), 0);
    EXPECT_EQ(lookup(100), 0);
    unlink(path.c_str());
    EXPECT_EQ(lookup(200), 10);

    init_csv_cache_manager();
    EXPECT_FALSE(get_csv_cache_for_freq("2.4")->loaded);
    EXPECT_EQ(get_csv_cache_for_freq("2.4")->row_count, 0);
}

TEST_F(CachedTableTest, FailedLoadsReportAndLeaveTheCacheEmpty) {
    CsvBandCache* cache = get_csv_cache_for_freq("5.1");
    std::string path = dir_.path() + "/5_1_mv_to_dbm.csv";

    testing::internal::CaptureStderr();
    EXPECT_EQ(load_csv_cache(cache, path.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error opening csv dbm conversion file: No such file or directory\n");
    EXPECT_FALSE(cache->loaded);

    dir_.write_file("5_1_mv_to_dbm.csv", "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(load_csv_cache(cache, path.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error reading CSV header\\n");
    EXPECT_FALSE(cache->loaded);

    dir_.write_file("5_1_mv_to_dbm.csv", kHeader + "100,1\n");
    EXPECT_EQ(load_csv_cache(cache, path.c_str()), 0);  // a later attempt succeeds
    EXPECT_EQ(cache->row_count, 1);
}

TEST_F(CachedTableTest, BadMcsOrBandFailsWithoutTouchingTheOutputs) {
    load("100,1\n");
    struct Case {
        int mcs;
        const char* band;
        const char* message;
    };
    const Case cases[] = {{8, "2.4", "Invalid MCS value: 8. Must be 0-7\\n"},
                          {-1, "2.4", "Invalid MCS value: -1. Must be 0-7\\n"},
                          {0, "2.40", "Invalid frequency: 2.40\\n"},
                          {0, "5_8", "Invalid frequency: 5_8\\n"},
                          {0, nullptr, "Invalid frequency: (null)\\n"}};
    for (const Case& c : cases) {
        double mv_out = 42, dbm_out = 43;
        testing::internal::CaptureStderr();
        EXPECT_EQ(read_csv_data_cached(&mv_out, &dbm_out, c.mcs, c.band, 100), -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
        EXPECT_EQ(mv_out, 42);
        EXPECT_EQ(dbm_out, 43);
    }
}

TEST(CsvCacheManagerTest, BandsMapToTheirOwnCache) {
    EXPECT_EQ(get_csv_cache_for_freq("2.4"), &g_csv_cache_manager.caches[0]);
    EXPECT_EQ(get_csv_cache_for_freq("5.1"), &g_csv_cache_manager.caches[1]);
    EXPECT_EQ(get_csv_cache_for_freq("5.8"), &g_csv_cache_manager.caches[2]);
    for (const char* band : {"5.8 ", "5.", "2_4", "", "2.4.5"})
        EXPECT_EQ(get_csv_cache_for_freq(band), nullptr) << band;
}

}  // namespace
