// Option globals of the command line, with the values the process starts with.
#include "orca-vtx-i2c-monitor.h"

char I2C_DEVICE[32] = "";
int Average_Sampling = 300;
double PAUSE_BETWEEN_PRINTS = 0.0001;
double desired_dBm = 25.0;
bool adjust_power = false;
int current_power = 1;
bool g_mp_mode = false;
bool g_calibrate_f_flag = false;
bool g_calibrate_m_flag = false;
CalibrationParams g_calib_params = {};
