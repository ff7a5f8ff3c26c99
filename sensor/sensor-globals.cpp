// Globals shared by the sensor and calibration code; the monitor loop publishes the
// radio state into the g_global_* copies.
#include "i2c-monitor.h"

int Debug_Prints = 0;
bool g_temp_test_flag = false;
int g_global_frequency = 5800;
int g_global_mcs = 0;
int g_global_power_idx = 1;
