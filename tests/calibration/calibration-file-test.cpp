// The calibration file's reader and merge on text in memory: the shapes of existing files
// that a run merges into, and the cases that a calibration run on the board does not reach.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "calibration-file.h"
#include "frequency-band.h"

namespace {

// Reads `existing` as the file found at the start of a run, merges `result` for `mcs` into
// it and returns what was written, prefixed "failed: " when the merge failed.
std::string merge(const std::string& existing, int mcs, const CalibrationResult& result) {
    ExistingCalibration file = {};
    FILE* in = fmemopen(const_cast<char*>(existing.data()), existing.size(), "r");
    EXPECT_EQ(read_existing_calibration(in, &file), 0);
    fclose(in);
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    const int written = write_calibration(out, mcs, &result, &file);
    fclose(out);
    std::string merged = (written == 0 ? "" : "failed: ") + std::string(text, size);
    free(text);
    free_existing_calibration(&file);
    return merged;
}

// The rows a merge appends for the levels from `first` to 63 that the file did not have.
std::string appended_from(int first, const std::string& commas) {
    std::string text;
    for (int level = first; level <= 63; ++level)
        text += std::to_string(level) + commas + ",NA,NA\n";
    return text;
}

// The band rule picks both the calibration file and the conversion table.
TEST(CalibrationFile, BandFilesAndTablesFollowTheFrequency) {
    char path[256];
    const struct {
        int mhz;
        const char* tag;
        const char* table;
    } kCases[] = {{2300, "2_4", "2.4"}, {2599, "2_4", "2.4"}, {5000, "5_1", "5.1"},
                  {5599, "5_1", "5.1"}, {5600, "5_8", "5.8"}, {5999, "5_8", "5.8"}};
    for (const auto& c : kCases) {
        ASSERT_EQ(format_calibration_path(c.mhz, path, sizeof path), 0) << c.mhz;
        EXPECT_EQ(std::string(path), std::string("/data/quillon/vtx/calibrated_") + c.tag + ".csv");
        EXPECT_STREQ(band_table_name(frequency_band(c.mhz)), c.table) << c.mhz;
    }
    for (int mhz : {2299, 2600, 4999, 6000, 0, -2400, -5800}) {
        EXPECT_EQ(format_calibration_path(mhz, path, sizeof path), -1) << mhz;
        EXPECT_EQ(frequency_band(mhz), FrequencyBand::none) << mhz;
        EXPECT_EQ(band_table_name(frequency_band(mhz)), nullptr) << mhz;
    }
}

TEST(CalibrationFile, MergeAddsThePairWhereItBelongsAndKeepsTheRest) {
    CalibrationResult result = {};
    result.measured[1] = true;
    result.mV[1] = 512.345;
    result.mW[1] = 1.5;
    const std::string mcs0 = "Power_Level,MCS0_mV,MCS0_mW";
    const struct {
        std::string existing;
        int mcs;
        std::string merged;
    } kCases[] = {
        // Another MCS: the header gains its pair, every row its two values.
        {mcs0 + "\n1,5.00,6.00\n2,7.00,8.00\n", 1,
         mcs0 + ",MCS1_mV,MCS1_mW\n1,5.00,6.00,512.35,1.50\n2,7.00,8.00,-1,-1\n" +
             appended_from(3, ",,")},
        // A header alone: every level is appended after the existing fields.
        {"Power_Level,MCS1_mV,MCS1_mW\n", 0,
         "Power_Level,MCS1_mV,MCS1_mW,MCS0_mV,MCS0_mW\n1,,,512.35,1.50\n" + appended_from(2, ",,")},
        // A header naming only one of the pair stays as it is; the rows gain the pair.
        {"Power_Level,MCS0_mV,Note\n1,99.00,old\n2,1.00,x\n", 0,
         "Power_Level,MCS0_mV,Note\n1,99.00,old,512.35,1.50\n2,1.00,x,-1,-1\n" +
             appended_from(3, ",,")},
        // A row without a level number is kept in place and not taken for any level.
        {mcs0 + "\nnote,NA,x\n1,5,6\n", 0,
         mcs0 + "\nnote,-1,x\n1,512.35,1.50\n" + appended_from(2, "")},
        // A header without its newline still ends its own line.
        {mcs0, 0, mcs0 + "\n1,512.35,1.50\n" + appended_from(2, "")},
        // A row of commas only has no level at all: the merge stops there.
        {mcs0 + "\n1,5,6\n,,\n", 0, "failed: " + mcs0 + "\n1,512.35,1.50\n"},
        // A header longer than the line buffer is written back on one line; its rest is
        // taken for the first row.
        {mcs0 + std::string(1100, 'x') + "\n1,5,6\n", 0,
         mcs0 + std::string(1100, 'x') + "\n1,512.35,1.50\n" + appended_from(2, "")},
    };
    for (const auto& c : kCases)
        EXPECT_EQ(merge(c.existing, c.mcs, result), c.merged) << c.existing.substr(0, 80);

    // An empty file has no header to merge into.
    FILE* empty = tmpfile();
    ExistingCalibration file = {};
    EXPECT_EQ(read_existing_calibration(empty, &file), -1);
    EXPECT_EQ(file.rows, nullptr);
    fclose(empty);
}

TEST(CalibrationFile, LinesLongerThanTheBufferCountAsSeveralRows) {
    std::string text = "Power_Level,MCS0_mV,MCS0_mW\n1," + std::string(1500, '7') + "\n";
    FILE* in = fmemopen(text.data(), text.size(), "r");
    ExistingCalibration file = {};
    ASSERT_EQ(read_existing_calibration(in, &file), 0);
    fclose(in);
    EXPECT_EQ(file.row_count, 2);
    EXPECT_EQ(std::string(file.rows[1]), std::string(1502 - 1023, '7'));
    free_existing_calibration(&file);
}

}  // namespace
