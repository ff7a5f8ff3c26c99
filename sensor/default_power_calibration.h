// Default calibration tables compiled into the program, one per band tag.
#pragma once

#include <string_view>

// The library is built with hidden visibility: what this header declares is its API.
#pragma GCC visibility push(default)

namespace default_cal {
extern const std::string_view kCalibrated_2_4;
extern const std::string_view kCalibrated_5_1;
extern const std::string_view kCalibrated_5_8;

// Default detector voltage in mV for band tag ("2_4", "5_1", "5_8"), MCS and power
// level, or -1.0 when the table has none.
double default_cal_get_mv(const char* band, int mcs, int power_level);
}  // namespace default_cal

using default_cal::default_cal_get_mv;  // reachable unqualified as well

#pragma GCC visibility pop
