// Command line, help text and bus discovery of orca-vtx-i2c-monitor.
#pragma once

enum RunMode : int {
    RUN_MODE_ERROR = -1,
    RUN_MODE_HELP = 0,
    RUN_MODE_MONITOR = 1,
    RUN_MODE_CALIBRATE = 2,
    RUN_MODE_FAST_CALIBRATE = 3,
};

struct CalibrationParams {
    int frequencies[10];
    int mcs[10];
    int num_frequencies;
    int num_mcs;
};

extern char I2C_DEVICE[32];
extern int Average_Sampling;         // 300
extern double PAUSE_BETWEEN_PRINTS;  // 0.0001
extern double desired_dBm;           // 25.0
extern bool adjust_power;
extern int current_power;  // 1
extern bool g_mp_mode;
extern bool g_calibrate_f_flag;
extern bool g_calibrate_m_flag;
extern CalibrationParams g_calib_params;

RunMode parse_arguments(int argc, char* argv[]);
void print_help(const char* program_name);
int detect_i2c_bus();
double mW_to_dBm(double mw);
