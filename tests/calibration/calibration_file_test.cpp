// The calibration file's reader and merge on text in memory: the cases that a calibration
// run on the board does not reach easily.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "calibration-file.h"

namespace {

// Reads `existing` as the file found at the start of a run, merges `result` for `mcs` into
// it and returns what was written, or "failed" when the reader or the merge failed.
std::string merge(const std::string& existing, int mcs, const CalibrationResult& result) {
    ExistingCalibration file = {};
    if (!existing.empty()) {
        FILE* in = fmemopen(const_cast<char*>(existing.data()), existing.size(), "r");
        const int read = read_existing_calibration(in, &file);
        fclose(in);
        if (read != 0)
            return "failed";
    }
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    const int written = write_calibration(out, mcs, &result, &file);
    fclose(out);
    std::string merged =
        written == 0 ? std::string(text, size) : "failed: " + std::string(text, size);
    free(text);
    free_existing_calibration(&file);
    return merged;
}

CalibrationResult measured_at(int level, double mv, double mw) {
    CalibrationResult result = {};
    result.measured[level] = true;
    result.mV[level] = mv;
    result.mW[level] = mw;
    return result;
}

// The tail a merge appends for levels 2 to 63 when the file had none of them.
std::string appended_from(int first, const std::string& commas, const std::string& cells) {
    std::string text;
    for (int level = first; level <= 63; ++level)
        text += std::to_string(level) + commas + cells + "\n";
    return text;
}

TEST(CalibrationFile, BandFilesFollowTheFrequency) {
    char path[256];
    const struct {
        int mhz;
        const char* file;
    } kCases[] = {{2300, "calibrated_2_4.csv"}, {2599, "calibrated_2_4.csv"},
                  {5000, "calibrated_5_1.csv"}, {5599, "calibrated_5_1.csv"},
                  {5600, "calibrated_5_8.csv"}, {5999, "calibrated_5_8.csv"}};
    for (const auto& c : kCases) {
        ASSERT_EQ(format_calibration_path(c.mhz, path, sizeof path), 0) << c.mhz;
        EXPECT_EQ(std::string(path), std::string("/data/quillon/vtx/") + c.file);
    }
    for (int mhz : {2299, 2600, 4999, 6000, 0})
        EXPECT_EQ(format_calibration_path(mhz, path, sizeof path), -1) << mhz;
}

TEST(CalibrationFile, TemperatureStopCellsCarryTheTruncatedTemperature) {
    CalibrationResult result = measured_at(1, kTempStopMarkerMv, 76.37);
    result.measured[2] = true;
    result.mV[2] = kTempStopMarkerMv;
    result.mW[2] = 80.0;
    const std::string merged = merge("", 5, result);
    EXPECT_EQ(merged.rfind("Power_Level,MCS5_mV,MCS5_mW\n1,TEMP_ERROR_76_3,TEMP_ERROR_76_3\n"
                           "2,TEMP_ERROR_80_0,TEMP_ERROR_80_0\n3,-1,-1\n",
                           0),
              0u)
        << merged;
}

TEST(CalibrationFile, RowsAreCopiedAsTheyStandUnlessTheyNameNoLevel) {
    const CalibrationResult result = measured_at(1, 512.345, 1.5);
    // A row without a level number is kept in place and not taken for any level.
    EXPECT_EQ(
        merge("Power_Level,MCS0_mV,MCS0_mW\nnote,NA,x\n1,5,6\n", 0, result),
        "Power_Level,MCS0_mV,MCS0_mW\nnote,-1,x\n1,512.35,1.50\n" + appended_from(2, "", ",NA,NA"));
    // A header without its newline still ends its own line.
    EXPECT_EQ(merge("Power_Level,MCS0_mV,MCS0_mW", 0, result),
              "Power_Level,MCS0_mV,MCS0_mW\n1,512.35,1.50\n" + appended_from(2, "", ",NA,NA"));
    // A row of commas only has no level at all: the merge stops there.
    EXPECT_EQ(merge("Power_Level,MCS0_mV,MCS0_mW\n1,5,6\n,,\n", 0, result),
              "failed: Power_Level,MCS0_mV,MCS0_mW\n1,512.35,1.50\n");
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
