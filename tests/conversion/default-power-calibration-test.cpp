// The default calibration tables compiled into the program and their lookup.
#include "default_power_calibration.h"

#include <gtest/gtest.h>

#include <string_view>
#include <utility>
#include <vector>

#include "listed_calibration_tables.h"

namespace {

// Line by line, so that a failure names the row.
std::vector<std::string_view> lines(std::string_view text) {
    std::vector<std::string_view> result;
    for (size_t end; (end = text.find('\n')) != std::string_view::npos; text.remove_prefix(end + 1))
        result.push_back(text.substr(0, end + 1));
    if (!text.empty())
        result.push_back(text);
    return result;
}

TEST(DefaultCalibrationTest, TablesHoldExactlyTheListedValues) {
    const std::pair<const char*, std::string_view> tables[] = {
        {"2_4", default_cal::kCalibrated_2_4},
        {"5_1", default_cal::kCalibrated_5_1},
        {"5_8", default_cal::kCalibrated_5_8}};
    for (const auto& [tag, text] : tables) {
        const std::string_view listed = orca_test::listed_table(tag);
        EXPECT_EQ(text.size(), listed.size()) << tag;
        EXPECT_EQ(lines(text), lines(listed)) << tag;
        // And every voltage as the lookup gives it, -1 for the rows without one.
        for (int mcs : {0, 1, 3})
            for (int level = 1; level <= 63; ++level)
                EXPECT_EQ(default_cal_get_mv(tag, mcs, level),
                          orca_test::listed_mv(tag, mcs, level))
                    << tag << " MCS " << mcs << " level " << level;
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
