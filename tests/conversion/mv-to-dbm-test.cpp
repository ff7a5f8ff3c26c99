// The mV-to-dBm lookups: file format, nearest-row rules, row limit and the cache, and how the
// uncached lookup differs.
#include "capture_output.h"
#include "i2c-monitor.h"
#include "mv-to-dbm-file.h"
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

class ConversionTableTest : public ::testing::Test {
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

    double uncached(const std::string& rows, int mcs, double mv) {
        std::string path = dir_.write_file("table.csv", "header\n" + rows);
        double mv_out = -1, dbm_out = -1;
        EXPECT_EQ(read_csv_data_from_file(path.c_str(), &mv_out, &dbm_out, mcs, mv), 0);
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

TEST_F(ConversionTableTest, ReadsMiddleHalfMeanOrNearestRow) {
    // The middle half of a bracket reads as the mean; elsewhere the nearer end, where a point
    // as near the midpoint as an end keeps the end; outside the table, the nearest row.
    load("100,0\n200,10\n");
    const std::pair<double, double> points[] = {{150, 5}, {130, 5},  {170, 5}, {120, 0}, {180, 10},
                                                {125, 0}, {175, 10}, {50, 0},  {500, 10}};
    for (auto [mv, dbm] : points)
        EXPECT_EQ(lookup(mv), dbm) << mv;
    expect_all({// the mean is rounded to 0.5 dB, halves away from zero
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

TEST_F(ConversionTableTest, ParsesFieldsAndLinesLikeTheVehicleFiles) {
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

TEST_F(ConversionTableTest, CacheKeepsTheFirstThousandRows) {
    std::string rows;
    for (int mv = 1; mv <= 1200; ++mv)
        rows += std::to_string(mv) + (mv <= 1000 ? ",1\n" : ",2\n");
    load(rows);
    EXPECT_EQ(get_csv_cache_for_freq("2.4")->row_count, 1000);
    EXPECT_EQ(lookup(1100), 1);
    EXPECT_EQ(uncached(rows, 0, 1100), 2);  // the uncached lookup has no row limit

    load("");  // header only
    EXPECT_EQ(lookup(500, 3), 0.0);
}

TEST_F(ConversionTableTest, FailedLoadsReportAndAreRetriedButALoadedBandIsNotReadAgain) {
    CsvBandCache* cache = get_csv_cache_for_freq("5.1");
    std::string path = dir_.path() + "/5_1_mv_to_dbm.csv";
    const auto printed = orca_test::capture_output([&] {
        EXPECT_EQ(load_csv_cache(cache, path.c_str()), -1);
        dir_.write_file("5_1_mv_to_dbm.csv", "");
        EXPECT_EQ(load_csv_cache(cache, path.c_str()), -1);
    });
    EXPECT_EQ(printed.err,
              "Error opening csv dbm conversion file: No such file or directory\n"
              "Error reading CSV header\\n");
    EXPECT_FALSE(cache->loaded);
    dir_.write_file("5_1_mv_to_dbm.csv", kHeader + "100,1\n");
    EXPECT_EQ(load_csv_cache(cache, path.c_str()), 0);
    EXPECT_EQ(cache->row_count, 1);

    path = load("100,0\n200,10\n");
    dir_.write_file("2_4_mv_to_dbm.csv", kHeader + "100,30\n");
    EXPECT_EQ(load_csv_cache(get_csv_cache_for_freq("2.4"), path.c_str()), 0);
    EXPECT_EQ(lookup(100), 0);
    unlink(path.c_str());
    EXPECT_EQ(lookup(200), 10);
    init_csv_cache_manager();
    EXPECT_FALSE(get_csv_cache_for_freq("2.4")->loaded);
}

TEST_F(ConversionTableTest, RejectsBadMcsAndBandsWithoutTouchingTheOutputs) {
    load("100,1\n");
    double mv_out = 42, dbm_out = 43;
    const auto printed = orca_test::capture_output([&] {
        for (int mcs : {8, -1})
            EXPECT_EQ(read_csv_data_cached(&mv_out, &dbm_out, mcs, "2.4", 100), -1);
        for (const char* band : {"2.40", "5_8", "5.8 ", "", static_cast<const char*>(nullptr)})
            EXPECT_EQ(read_csv_data_cached(&mv_out, &dbm_out, 0, band, 100), -1);
    });
    EXPECT_EQ(printed.err,
              "Invalid MCS value: 8. Must be 0-7\\nInvalid MCS value: -1. Must be 0-7\\n"
              "Invalid frequency: 2.40\\nInvalid frequency: 5_8\\nInvalid frequency: 5.8 \\n"
              "Invalid frequency: \\nInvalid frequency: (null)\\n");
    EXPECT_EQ(mv_out, 42);
    EXPECT_EQ(dbm_out, 43);

    // The uncached lookup ends its header message with a real newline.
    std::string empty = dir_.write_file("empty.csv", "");
    std::string missing = dir_.path() + "/missing.csv";
    const auto uncached = orca_test::capture_output([&] {
        EXPECT_EQ(read_csv_data_from_file(empty.c_str(), &mv_out, &dbm_out, 0, 1), -1);
        EXPECT_EQ(read_csv_data_from_file(missing.c_str(), &mv_out, &dbm_out, 0, 1), -1);
        EXPECT_EQ(read_csv_data(&mv_out, &dbm_out, 0, nullptr, 1), -1);
    });
    EXPECT_EQ(uncached.err,
              "Error reading CSV header\n"
              "Error opening csv dbm conversion file: No such file or directory\n"
              "Invalid frequency: (null)\\n");
    EXPECT_EQ(mv_out, 42);
    EXPECT_EQ(dbm_out, 43);

    EXPECT_EQ(get_csv_cache_for_freq("5.1"), &g_csv_cache_manager.caches[1]);
    EXPECT_EQ(get_csv_cache_for_freq("5.8"), &g_csv_cache_manager.caches[2]);
}

TEST_F(ConversionTableTest, UncachedLookupReadsAnyColumnAndSkipsRowsLackingIt) {
    EXPECT_EQ(uncached("100,0\n200,10\n", 0, 125), 0);
    EXPECT_EQ(uncached("100,0\n200,10\n", -1, 150), 150);  // negative MCS: the mV column
    EXPECT_EQ(uncached("100,0\n200,10\n", -7, 120), 100);
    const std::string ten_fields = "100,0,0,0,0,0,0,0,0,5\n200,0,0,0,0,0,0,0,0,9\n";
    EXPECT_EQ(uncached(ten_fields, 8, 150), 7);
    EXPECT_EQ(uncached(ten_fields, 9, 150), 0);
    EXPECT_EQ(uncached(ten_fields, 2147483647, 150), 0);
    // The short row is skipped, so 150 mV sits mid-bracket; the cache reads it as 0 dBm.
    EXPECT_EQ(uncached("100,0\n150\n200,10\n", 0, 150), 5);
}

TEST(ConversionPathTest, TagReplacesPointsAndKeepsNineCharacters) {
    char path[256];
    format_conversion_path("2.4", path, sizeof path);
    EXPECT_STREQ(path, "/data/quillon/vtx/2_4_mv_to_dbm.csv");
    format_conversion_path("12345.789.123", path, sizeof path);
    EXPECT_STREQ(path, "/data/quillon/vtx/12345_789_mv_to_dbm.csv");
}

}  // namespace
