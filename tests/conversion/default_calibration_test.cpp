// The default calibration tables compiled into the program and their lookup.
#include "default_power_calibration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

namespace {

struct Table {
    const char* tag;
    std::string_view text;
    size_t length;
};

const Table kTables[] = {{"2_4", default_cal::kCalibrated_2_4, 2776},
                         {"5_1", default_cal::kCalibrated_5_1, 2723},
                         {"5_8", default_cal::kCalibrated_5_8, 2773}};

TEST(DefaultCalibrationTest, TablesHaveTheirShape) {
    for (const Table& t : kTables) {
        EXPECT_EQ(t.text.size(), t.length) << t.tag;
        EXPECT_EQ(t.text.substr(0, t.text.find('\n')),
                  "Power_Level,MCS0_mV,MCS0_mW,MCS1_mV,MCS1_mW,MCS3_mV,MCS3_mW");
        EXPECT_EQ(std::count(t.text.begin(), t.text.end(), '\n'), 64) << t.tag;
        EXPECT_EQ(t.text.substr(t.text.size() - 22), "\n63,-1,-1,-1,-1,-1,-1\n") << t.tag;
    }
}

TEST(DefaultCalibrationTest, LooksUpVoltagesByBandMcsAndLevel) {
    EXPECT_DOUBLE_EQ(default_cal_get_mv("2_4", 0, 1), 355.96);
    EXPECT_DOUBLE_EQ(default_cal_get_mv("2_4", 1, 60), 926.22);
    EXPECT_DOUBLE_EQ(default_cal_get_mv("5_1", 1, 60), 932.81);
    EXPECT_DOUBLE_EQ(default_cal_get_mv("5_8", 3, 2), 388.695);
    EXPECT_DOUBLE_EQ(default_cal_get_mv("2_4", 0, 10), 458.5);
    EXPECT_DOUBLE_EQ(default_cal_get_mv("5_8", 3, 60), 1005.545);

    // Every real level of every listed MCS has a voltage; levels 61 to 63 have none.
    for (const Table& t : kTables) {
        for (int mcs : {0, 1, 3}) {
            for (int level = 1; level <= 60; ++level)
                EXPECT_GT(default_cal_get_mv(t.tag, mcs, level), 200.0) << t.tag << level;
            for (int level = 61; level <= 63; ++level)
                EXPECT_EQ(default_cal_get_mv(t.tag, mcs, level), -1.0) << t.tag << level;
        }
    }
}

TEST(DefaultCalibrationTest, MissingEntriesReadMinusOne) {
    EXPECT_EQ(default_cal_get_mv("5_8", 0, 61), -1.0);
    EXPECT_EQ(default_cal_get_mv("5_8", 0, 0), -1.0);
    EXPECT_EQ(default_cal_get_mv("5_8", 0, 64), -1.0);
    EXPECT_EQ(default_cal_get_mv("5_8", 2, 10), -1.0);
    EXPECT_EQ(default_cal_get_mv("5_8", -1, 10), -1.0);
    EXPECT_EQ(default_cal_get_mv("5_8", 30, 10), -1.0);
    for (const char* band : {"2.4", "2_4x", "5_1 ", "5_8_", "5", ""})
        EXPECT_EQ(default_cal_get_mv(band, 0, 10), -1.0) << band;
    EXPECT_EQ(default_cal_get_mv(nullptr, 0, 10), -1.0);
}

}  // namespace
