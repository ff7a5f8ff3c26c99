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

// Reads the command line into the globals above. The bus comes first: the last -d, or
// without one detect_i2c_bus(); then every option from left to right, the first error
// ending the parse. Returns the mode, or RUN_MODE_ERROR after its message on stderr (usage
// errors add the help text on stdout). Sets I2C_DEVICE, the adjust and sampling globals,
// g_mp_mode and g_temp_test_flag as it goes; g_calib_params and the two calibrate flags
// only when a calibration mode is returned. Runs i2cdetect (through the shell) to check
// for the detector pair; prints the settings on stdout with Debug_Prints in monitor mode.
RunMode parse_arguments(int argc, char* argv[]);
// Prints the help text on stdout, with `program_name` in its usage and examples.
void print_help(const char* program_name);
// Scans /dev/i2c-0 to /dev/i2c-16 with i2cdetect (1.5 s limit per bus) for the ADS7142 at
// 0x1d and the temperature sensor at 0x48 together. Returns the first such bus after
// "Found VTX on I2C bus N" on stdout, or -1 after the error on stderr. Reads Debug_Prints
// (skipped and timed-out buses are reported on stdout).
int detect_i2c_bus();
// 10 log10(mw): dBm of a power in mW. Prints nothing; -inf for 0, NaN below.
double mW_to_dBm(double mw);
