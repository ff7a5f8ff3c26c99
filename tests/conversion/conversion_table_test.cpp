// The cached mV-to-dBm lookup: file format, nearest-row rules, row limit and the cache.
#include "i2c-monitor.h"
#include "run_process.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>

namespace {

const std::string kHeader = "mV,MCS0,MCS1,MCS2,MCS3,MCS4,MCS5,MCS6,MCS7\n";

struct Case {
    std::string file;  // everything after the header line
    int mcs;
    double mv;
    double dbm;
};

class CachedTableTest : public ::testing::Test {
  protected:
    // Loads a fresh 2.4 table made of `header` and `rows`.
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

    void expect_all(const std::vector<Case>& cases) {
        for (const Case& c : cases) {
            load(c.file);
            EXPECT_EQ(lookup(c.mv, c.mcs), c.dbm) << c.file << "MCS " << c.mcs << " at " << c.mv;
        }
    }

    orca_test::TempDir dir_;
};

TEST_F(CachedTableTest, ReadsMiddleHalfMeanOrNearestRow) {
    const std::string two = "100,0\n200,10\n";
    expect_all({// middle half
                {two, 0, 150, 5},
                {two, 0, 130, 5},
                {two, 0, 170, 5},
                // nearer end, and the midpoint as near as the end: the end stands
                {two, 0, 120, 0},
                {two, 0, 180, 10},
                {two, 0, 125, 0},
                // no extrapolation
                {two, 0, 50, 0},
                {two, 0, 500, 10},
                // the mean is rounded to 0.5 dB, halves away from zero
                {"100,0.3\n200,0.4\n", 0, 150, 0.5},
                {"100,0.25\n200,0.25\n", 0, 150, 0.5},
                {"100,-0.25\n200,-0.25\n", 0, 150, -0.5},
                // a middle half overrides even an exact earlier row
                {"150,7\n100,0\n200,10\n", 0, 150, 5},
                // a closer or equally near earlier row beats either end of a bracket
                {"118,3\n100,0\n200,10\n", 0, 120, 3},
                {"140,7\n100,0\n200,10\n", 0, 120, 7},
                {"160,7\n100,0\n200,10\n", 0, 180, 7}});
}

TEST_F(CachedTableTest, ParsesFieldsAndLinesLikeTheVehicleFiles) {
    expect_all({{"100,,5\n", 0, 100, 5},                  // runs of commas are one separator
                {"100,0,1,2,3,4,5,6,7,99\n", 7, 100, 7},  // MCS 7 is field 9
                {"100,1,2\n", 2, 100, 0},                 // missing trailing field
                {"100,0\n150\n200,10\n", 0, 150, 0},      // a short row still counts
                {"100,12dB,abc\n", 0, 100, 12},           // leading-number rule
                {"100,12dB,abc\n", 1, 100, 0},
                {"100,4\n\n", 0, 0, 0},      // an empty line is a row at 0 mV...
                {"100,4\n,,,,\n", 0, 0, 4},  // ...a line of only commas is none,
                {"100,4\n,,,,", 0, 0, 4},    // with or without its line end
                // a 1023-character piece ends a row
                {"100,4" + std::string(1018, ',') + "300,9\n", 0, 300, 9}});

    load("150,8\n", std::string(1023, 'h'));  // the header's tail is the first row
    EXPECT_EQ(lookup(150), 8);
}

TEST_F(CachedTableTest, KeepsTheFirstThousandRows) {
    std::string rows;
    for (int mv = 1; mv <= 1200; ++mv)
        rows += std::to_string(mv) + (mv <= 1000 ? ",1\n" : ",2\n");
    load(rows);
    EXPECT_EQ(get_csv_cache_for_freq("2.4")->row_count, 1000);
    EXPECT_EQ(lookup(1100), 1);

    load("");  // header only
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
}

TEST_F(CachedTableTest, FailedLoadsReportAndCanBeRetried) {
    CsvBandCache* cache = get_csv_cache_for_freq("5.1");
    std::string path = dir_.path() + "/5_1_mv_to_dbm.csv";
    testing::internal::CaptureStderr();
    EXPECT_EQ(load_csv_cache(cache, path.c_str()), -1);
    dir_.write_file("5_1_mv_to_dbm.csv", "");
    EXPECT_EQ(load_csv_cache(cache, path.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error opening csv dbm conversion file: No such file or directory\n"
              "Error reading CSV header\\n");
    EXPECT_FALSE(cache->loaded);

    dir_.write_file("5_1_mv_to_dbm.csv", kHeader + "100,1\n");
    EXPECT_EQ(load_csv_cache(cache, path.c_str()), 0);
    EXPECT_EQ(cache->row_count, 1);
}

TEST_F(CachedTableTest, RejectsBadMcsAndBandsWithoutTouchingTheOutputs) {
    load("100,1\n");
    double mv_out = 42, dbm_out = 43;
    testing::internal::CaptureStderr();
    for (int mcs : {8, -1})
        EXPECT_EQ(read_csv_data_cached(&mv_out, &dbm_out, mcs, "2.4", 100), -1);
    for (const char* band : {"2.40", "5_8", "5.8 ", "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(read_csv_data_cached(&mv_out, &dbm_out, 0, band, 100), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Invalid MCS value: 8. Must be 0-7\\nInvalid MCS value: -1. Must be 0-7\\n"
              "Invalid frequency: 2.40\\nInvalid frequency: 5_8\\nInvalid frequency: 5.8 \\n"
              "Invalid frequency: \\nInvalid frequency: (null)\\n");
    EXPECT_EQ(mv_out, 42);
    EXPECT_EQ(dbm_out, 43);

    EXPECT_EQ(get_csv_cache_for_freq("5.1"), &g_csv_cache_manager.caches[1]);
    EXPECT_EQ(get_csv_cache_for_freq("5.8"), &g_csv_cache_manager.caches[2]);
}

}  // namespace
