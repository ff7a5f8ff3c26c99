// Limits at which a calibration run stops measuring to protect the board and the aircraft.
#pragma once

// Board temperature (°C) above which a run armed with -temp_test stops.
constexpr double kCalibrationTempLimitC = 75.0;
// Measured output (dBm) above which every run stops: the level is recorded, nothing higher.
constexpr double kCalibrationDbmLimit = 31.5;
