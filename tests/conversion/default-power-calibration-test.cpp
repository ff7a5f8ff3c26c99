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

TEST(DefaultCalibrationTest, TablesHaveTheirShapeAndAVoltageForEveryRealLevel) {
    const Table tables[] = {{"2_4", default_cal::kCalibrated_2_4, 2776},
                            {"5_1", default_cal::kCalibrated_5_1, 2723},
                            {"5_8", default_cal::kCalibrated_5_8, 2773}};
    for (const Table& t : tables) {
        EXPECT_EQ(t.text.size(), t.length) << t.tag;
        EXPECT_EQ(t.text.substr(0, t.text.find('\n')),
                  "Power_Level,MCS0_mV,MCS0_mW,MCS1_mV,MCS1_mW,MCS3_mV,MCS3_mW");
        EXPECT_EQ(std::count(t.text.begin(), t.text.end(), '\n'), 64) << t.tag;
        for (int mcs : {0, 1, 3}) {
            for (int level = 1; level <= 63; ++level) {
                const double mv = default_cal_get_mv(t.tag, mcs, level);
                if (level <= 60)
                    EXPECT_GT(mv, 200.0) << t.tag << " MCS " << mcs << " level " << level;
                else
                    EXPECT_EQ(mv, -1.0) << t.tag << " MCS " << mcs << " level " << level;
            }
        }
    }
}

TEST(DefaultCalibrationTest, LooksUpVoltagesOrMinusOne) {
    EXPECT_DOUBLE_EQ(default_cal_get_mv("2_4", 0, 1), 355.96);
    EXPECT_DOUBLE_EQ(default_cal_get_mv("2_4", 1, 60), 926.22);
    EXPECT_DOUBLE_EQ(default_cal_get_mv("5_1", 1, 60), 932.81);
    EXPECT_DOUBLE_EQ(default_cal_get_mv("5_8", 3, 2), 388.695);
    EXPECT_DOUBLE_EQ(default_cal_get_mv("5_8", 3, 60), 1005.545);

    for (int level : {0, 64})
        EXPECT_EQ(default_cal_get_mv("5_8", 0, level), -1.0) << level;
    for (int mcs : {2, -1, 30})
        EXPECT_EQ(default_cal_get_mv("5_8", mcs, 10), -1.0) << mcs;
    for (const char* band : {"2.4", "2_4x", "5_1 ", "5_8_", "5", ""})
        EXPECT_EQ(default_cal_get_mv(band, 0, 10), -1.0) << band;
    EXPECT_EQ(default_cal_get_mv(nullptr, 0, 10), -1.0);
}

}  // namespace
