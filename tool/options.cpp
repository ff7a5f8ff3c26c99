// Command line of orca-vtx-i2c-monitor: settles the detector's I2C bus, reads the options into
// their globals and decides the run mode. Nothing here exits the process; main acts on the mode.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "calibration-safety.h"
#include "i2c-monitor.h"
#include "mp_session.h"
#include "orca-vtx-i2c-monitor.h"
#include "service-command.h"

namespace {

constexpr int kMaxCalibrationValues = 10;  // capacity of each CalibrationParams list
constexpr int kLastScannedBus = 16;
constexpr size_t kBusTextMax = 11;

constexpr int kFastDefaultFrequencies[] = {2412, 5180, 5805};
constexpr int kFastDefaultMcs[] = {0, 3};

// Both pipelines count the i2cdetect table lines that show the temperature sensor (0x48) or
// the ADS7142 (0x1d); they exit 0 only when both answer.
constexpr const char* kScanCommand =
    "timeout 1.5 i2cdetect -r -y %d | grep -E \" 48 | 1d \" | wc -l | awk '{if($1==2) {print "
    "\"0\"; exit 0} else {print \"9\"; exit 9}}' > /dev/null 2>&1";
constexpr const char* kPresenceCommand =
    "i2cdetect -r -y %s | grep -E \" 48 | 1d \" | wc -l | awk '{if($1==2) {print \"0\"; exit "
    "0} else {print \"9\"; exit 9}}' > /dev/null 2>&1";
constexpr int kTimeoutExitStatus = 124;  // timeout(1) when the time limit struck

enum class Calibration { none, full, fast };

bool is(const char* argument, const char* option) {
    return strcmp(argument, option) == 0;
}

bool starts_with_digit(const char* text) {
    return text != nullptr && text[0] >= '0' && text[0] <= '9';
}

// Reads a value that begins with a digit as base 10, ignoring any trailing text as the tool
// always has. A value beyond the range of int is refused rather than wrapped.
bool read_int_value(const char* text, int* out) {
    if (!starts_with_digit(text))
        return false;
    errno = 0;
    const long value = strtol(text, nullptr, 10);
    if (errno == ERANGE || value > INT_MAX)
        return false;
    *out = static_cast<int>(value);
    return true;
}

// Runs a command line through the shell; the exit status of a normal end, else -1 (the shell
// could not be started or was ended by a signal).
int shell_exit_status(const char* command) {
    const int status = run_shell_command(command);
    if (status == -1 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

// The bus text lands in a shell command line; a value such as "1;reboot" must not run commands
// of its own, so anything beyond a plain name never counts as a present VTX.
bool is_plain_bus_name(const char* text) {
    for (; *text != '\0'; ++text) {
        const char c = *text;
        const bool plain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                           (c >= 'A' && c <= 'Z') || c == '-' || c == '_' || c == '.';
        if (!plain)
            return false;
    }
    return true;
}

bool vtx_present(const char* bus_text) {
    if (!is_plain_bus_name(bus_text))
        return false;
    char command[256];
    snprintf(command, sizeof command, kPresenceCommand, bus_text);
    return shell_exit_status(command) == 0;
}

__attribute__((format(printf, 1, 2))) RunMode error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    return RUN_MODE_ERROR;
}

// Usage errors show the help text after the message.
__attribute__((format(printf, 2, 3))) RunMode usage_error(const char* program, const char* format,
                                                          ...) {
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    print_help(program);
    return RUN_MODE_ERROR;
}

// Appends a -f or -m value; false after the usage error for a bad value or a full list.
__attribute__((format(printf, 6, 0))) bool append_value(const char* program, const char* value,
                                                        int* list, int* count,
                                                        const char* bad_value_message,
                                                        const char* full_message) {
    int number = 0;
    if (!read_int_value(value, &number)) {
        usage_error(program, "%s", bad_value_message);
        return false;
    }
    if (*count >= kMaxCalibrationValues) {
        usage_error(program, full_message, kMaxCalibrationValues);
        return false;
    }
    list[(*count)++] = number;
    return true;
}

}  // namespace

double mW_to_dBm(double mw) {
    return 10.0 * log10(mw);
}

int detect_i2c_bus() {
    // Buses 0 to 16 are scanned although the message below speaks of 0-15; both are kept as
    // the operators know them.
    for (int bus = 0; bus <= kLastScannedBus; ++bus) {
        char device[32];
        snprintf(device, sizeof device, "/dev/i2c-%d", bus);
        if (access(device, F_OK) != 0) {
            if (Debug_Prints)
                printf("I2C bus %d device file does not exist, skipping...\n", bus);
            continue;
        }
        char command[256];
        snprintf(command, sizeof command, kScanCommand, bus);
        const int status = shell_exit_status(command);
        if (status == 0) {
            printf("Found VTX on I2C bus %d\n", bus);
            return bus;
        }
        if (status == kTimeoutExitStatus && Debug_Prints)
            printf("Timeout while scanning I2C bus %d, skipping...\n", bus);
    }
    fprintf(stderr, "ERROR: No VTX found after scanning I2C buses 0-15 (16 ports total)\n");
    return -1;
}

void print_help(const char* program_name) {
    const char* name = program_name != nullptr ? program_name : "orca-vtx-i2c-monitor";
    printf("Usage: %s -d <i2c_device_number> [options]\n", name);
    printf("  -d <i2c_device_number> : Specify the I2C device number (e.g., 1 for /dev/i2c-1)\n");
    printf(
        "  -s sampling_window     : Number of samples to find the maximum before printing "
        "(default: %d)\n",
        Average_Sampling);
    printf("  -p pause_seconds       : Pause duration between prints in seconds (default: %.3f)\n",
           PAUSE_BETWEEN_PRINTS);
    printf(
        "  -adjust-dbm <value>    : Enable automatic power adjustment to match desired dBm (value "
        "must be between 0 and 30).\n");
    printf(
        "  -adjust-mW <value>     : Enable automatic power adjustment using milliwatts (value must "
        "be between 5 and 1000).\n");
    printf("\nCalibration Mode:\n");
    printf(
        "  -calibrate             : Run full calibration (requires at least one -f and one -m "
        "option)\n");
    printf(
        "  -fast-calibrate        : Fast cal for 2412/5180/5805 MHz and MCS 0/3 (defaults apply if "
        "-f/-m omitted)\n");
    printf(
        "                           Other frequency/MCS combinations use full calibration with a "
        "warning\n");
    printf(
        "  -f <frequency>         : Specify a frequency in MHz for calibration (e.g., 5180, 5805, "
        "2412)\n");
    printf(
        "                           Can be specified multiple times for different frequencies\n");
    printf("  -m <mcs>               : Specify an MCS value for calibration (typically 0-7)\n");
    printf("                           Can be specified multiple times for different MCS values\n");
    // This line sits two columns right of its neighbours; operators' scripts match it as is.
    printf(
        "  -temp_test               : Enable temperature testing during calibration (stops if "
        "temperature exceeds %.1f°C)\n",
        kCalibrationTempLimitC);
    printf(
        "  -mp                    : Transmit with the Realtek MP tool (%s, continuous %d-byte "
        "frames)\n",
        kMpScriptPath, kMpFrameBytes);
    printf("                           instead of\n");
    printf(
        "                           a running 'orca-vtx -t' (deprecated). Stops orca-vtx itself "
        "and transmits\n");
    printf("                           only while it reads each power level.\n");
    printf("  Example: %s -d 1 -calibrate -f 5180 -f 5800 -m 0 -m 7\n", name);
    printf(
        "           This would perform calibration for all combinations: (5180,0), (5180,7), "
        "(5800,0), (5800,7)\n");
    printf("  Example: %s -d 1 -fast-calibrate\n", name);
    printf("  Example: %s -fast-calibrate -mp -f 2412 -f 5180 -f 5805 -m 0 -m 3 -temp_test\n",
           name);
    printf("           Fast cal for (2412,0), (2412,3), (5180,0), (5180,3), (5805,0), (5805,3)\n");
    printf("\nOther Options:\n");
    printf("  -help or help          : Display this help message and exit.\n");
}

RunMode parse_arguments(int argc, char* argv[]) {
    const char* program = (argc > 0 && argv[0] != nullptr) ? argv[0] : "orca-vtx-i2c-monitor";

    // Pass 1 settles the bus before any other option is looked at. It cannot tell which
    // arguments are values of other options, so every "-d" counts; the last one wins.
    const char* bus_value = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (!is(argv[i], "-d"))
            continue;
        if (i + 1 >= argc || !starts_with_digit(argv[i + 1]))
            return usage_error(program, "Error: -d option requires an integer value.\n");
        bus_value = argv[++i];
    }

    char bus_text[kBusTextMax + 1];
    if (bus_value != nullptr) {
        strncpy(bus_text, bus_value, kBusTextMax);
        bus_text[kBusTextMax] = '\0';
        snprintf(I2C_DEVICE, sizeof I2C_DEVICE, "/dev/i2c-%s", bus_text);
    } else {
        const int bus = detect_i2c_bus();
        if (bus < 0) {
            print_help(program);
            return RUN_MODE_ERROR;
        }
        snprintf(bus_text, sizeof bus_text, "%d", bus);
        snprintf(I2C_DEVICE, sizeof I2C_DEVICE, "/dev/i2c-%d", bus);
    }
    // Only the calibration options need the detector pair; monitor mode runs either way.
    const bool vtx_found = vtx_present(bus_text);

    // Pass 2: every option from left to right. The lists reach g_calib_params only when a
    // calibration mode is returned.
    Calibration calibration = Calibration::none;
    int frequencies[kMaxCalibrationValues] = {};
    int frequency_count = 0;
    int mcs[kMaxCalibrationValues] = {};
    int mcs_count = 0;

    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        const char* value = (i + 1 < argc) ? argv[i + 1] : nullptr;

        if (is(arg, "-help") || is(arg, "help")) {
            print_help(program);
            return RUN_MODE_HELP;
        }
        if (is(arg, "-calibrate") || is(arg, "-fast-calibrate")) {
            const bool fast = is(arg, "-fast-calibrate");
            const Calibration other = fast ? Calibration::full : Calibration::fast;
            if (calibration == other)
                return error("Error: -calibrate and -fast-calibrate cannot be used together.\n");
            if (!vtx_found && fast)
                return error("Error: Cannot fast calibrate - VTX not found on I2C bus %s\n",
                             bus_text);
            if (!vtx_found)
                return error("Error: Cannot calibrate - VTX not found on I2C bus %s\n", bus_text);
            calibration = fast ? Calibration::fast : Calibration::full;
        } else if (is(arg, "-mp") || is(arg, "--mp")) {
            g_mp_mode = true;
        } else if (is(arg, "-temp_test")) {
            g_temp_test_flag = true;
            fprintf(stderr,
                    "Temperature testing enabled. Calibration will stop if temperature exceeds "
                    "%.1f°C\n",
                    kCalibrationTempLimitC);
        } else if (is(arg, "-f")) {
            if (!append_value(program, value, frequencies, &frequency_count,
                              "Error: -f option requires a numeric frequency value.\n",
                              "Error: Maximum number of frequencies (%d) exceeded.\n"))
                return RUN_MODE_ERROR;
            ++i;
        } else if (is(arg, "-m")) {
            if (!append_value(program, value, mcs, &mcs_count,
                              "Error: -m option requires a numeric MCS value.\n",
                              "Error: Maximum number of MCS values (%d) exceeded.\n"))
                return RUN_MODE_ERROR;
            ++i;
        } else if (is(arg, "-adjust-mW")) {
            if (value == nullptr)
                return usage_error(program, "Error: -adjust-mW requires a numeric value.\n");
            const double mw = strtod(value, nullptr);
            // Written so that NaN fails too: a search towards NaN dBm can only fail, and it
            // would leave the radio on the last index it tried.
            if (!(mw >= 5.0 && mw <= 1000.0))
                return error("Error: mW value must be between 5 and 1000.\n");
            desired_dBm = 10.0 * log10(mw);
            // Cannot fail for an accepted mW value; it guards the bounds should they change.
            if (desired_dBm < 0.0 || desired_dBm > 30.0)
                return error("Error: Converted dBm value (%.2f) must be between 0 and 30.\n",
                             desired_dBm);
            adjust_power = true;
            ++i;
        } else if (is(arg, "-adjust-dbm")) {
            if (value == nullptr)
                return usage_error(program, "Error: -adjust-dbm requires a numeric value.\n");
            desired_dBm = strtod(value, nullptr);
            if (!(desired_dBm >= 0.0 && desired_dBm <= 30.0))
                return error("Error: Desired dBm must be between 0 and 30.\n");
            adjust_power = true;
            ++i;
        } else if (is(arg, "-s")) {
            int samples = 0;
            if (!read_int_value(value, &samples))
                return usage_error(program, "Error: -s option requires an integer value.\n");
            Average_Sampling = samples;
            ++i;
        } else if (is(arg, "-p")) {
            // An infinite pause would stall the monitor for good; refuse it like a non-number.
            const double pause = starts_with_digit(value) ? strtod(value, nullptr) : NAN;
            if (!std::isfinite(pause))
                return usage_error(program, "Error: -p option requires a numeric value.\n");
            PAUSE_BETWEEN_PRINTS = pause;
            ++i;
        } else if (is(arg, "-d")) {
            ++i;  // settled in pass 1
        } else {
            return usage_error(program, "Unknown option: %s\n", arg);
        }
    }

    if (calibration == Calibration::full) {
        if (frequency_count == 0) {
            return usage_error(program,
                               "Error: Calibration requires at least one frequency (-f option).\n");
        }
        if (mcs_count == 0) {
            return usage_error(program,
                               "Error: Calibration requires at least one MCS value (-m option).\n");
        }
    } else if (calibration == Calibration::fast) {
        // Each list falls back to the fast anchors on its own.
        if (frequency_count == 0) {
            for (int frequency : kFastDefaultFrequencies)
                frequencies[frequency_count++] = frequency;
        }
        if (mcs_count == 0) {
            for (int value : kFastDefaultMcs)
                mcs[mcs_count++] = value;
        }
    } else if (g_mp_mode) {
        return error("Error: -mp only applies to -calibrate and -fast-calibrate.\n");
    }

    if (calibration != Calibration::none) {
        memcpy(g_calib_params.frequencies, frequencies, sizeof frequencies);
        memcpy(g_calib_params.mcs, mcs, sizeof mcs);
        g_calib_params.num_frequencies = frequency_count;
        g_calib_params.num_mcs = mcs_count;
        g_calibrate_f_flag = true;
        g_calibrate_m_flag = true;
        return calibration == Calibration::full ? RUN_MODE_CALIBRATE : RUN_MODE_FAST_CALIBRATE;
    }

    if (Debug_Prints) {
        printf("I2C Device: %s\n", I2C_DEVICE);
        printf("Average Sampling: %d\n", Average_Sampling);
        printf("Pause Between Prints: %.2f seconds\n", PAUSE_BETWEEN_PRINTS);
        printf("Adjust dBm: %s (Desired dBm: %.2f)\n", adjust_power ? "Enabled" : "Disabled",
               desired_dBm);
    }
    return RUN_MODE_MONITOR;
}
