// The option globals as the process started, for in-process callers of parse_arguments that
// must put them back between runs (the tests and the command-line fuzzer).
#pragma once

#include "i2c-monitor.h"
#include "orca-vtx-i2c-monitor.h"

struct OptionGlobals {
    int samples = Average_Sampling, debug = Debug_Prints;
    double pause = PAUSE_BETWEEN_PRINTS, dbm = desired_dBm;
    bool adjust = adjust_power, mp = g_mp_mode, temp = g_temp_test_flag;
    CalibrationParams params = g_calib_params;
    void restore() const {
        I2C_DEVICE[0] = '\0', Average_Sampling = samples, Debug_Prints = debug;
        PAUSE_BETWEEN_PRINTS = pause, desired_dBm = dbm, adjust_power = adjust;
        g_mp_mode = mp, g_temp_test_flag = temp, g_calib_params = params;
        g_calibrate_f_flag = g_calibrate_m_flag = false;
    }
};
