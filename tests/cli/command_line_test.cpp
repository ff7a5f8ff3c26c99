// The command line as an operator meets it: the built tool run with arguments, its standard
// output, standard error and exit status compared exactly. The stand-in i2cdetect first on
// PATH plays the board: bus 3 carries the detector pair, bus 4 only the temperature sensor.
// No /dev/i2c-N exists here, so a command line that parses ends at opening the bus.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "run_process.h"

namespace {

const std::string kTool = ORCA_MONITOR_BINARY;
const std::string kOpenFailed = "Failed to open the i2c bus: No such file or directory\n";

std::string help_text(int samples = 300, const std::string& pause = "0.000") {
    const std::string& p = kTool;
    return "Usage: " + p + " -d <i2c_device_number> [options]\n" +
           "  -d <i2c_device_number> : Specify the I2C device number (e.g., 1 for /dev/i2c-1)\n" +
           "  -s sampling_window     : Number of samples to find the maximum before printing "
           "(default: " +
           std::to_string(samples) + ")\n" +
           "  -p pause_seconds       : Pause duration between prints in seconds (default: " +
           pause + ")\n" +
           R"(  -adjust-dbm <value>    : Enable automatic power adjustment to match desired dBm (value must be between 0 and 30).
  -adjust-mW <value>     : Enable automatic power adjustment using milliwatts (value must be between 5 and 1000).

Calibration Mode:
  -calibrate             : Run full calibration (requires at least one -f and one -m option)
  -fast-calibrate        : Fast cal for 2412/5180/5805 MHz and MCS 0/3 (defaults apply if -f/-m omitted)
                           Other frequency/MCS combinations use full calibration with a warning
  -f <frequency>         : Specify a frequency in MHz for calibration (e.g., 5180, 5805, 2412)
                           Can be specified multiple times for different frequencies
  -m <mcs>               : Specify an MCS value for calibration (typically 0-7)
                           Can be specified multiple times for different MCS values
  -temp_test               : Enable temperature testing during calibration (stops if temperature exceeds 75.0°C)
  -mp                    : Transmit with the Realtek MP tool (/usr/bin/rtw_mp_test.sh, continuous 7800-byte frames)
                           instead of
                           a running 'orca-vtx -t' (deprecated). Stops orca-vtx itself and transmits
                           only while it reads each power level.
  Example: )" +
           p +
           " -d 1 -calibrate -f 5180 -f 5800 -m 0 -m 7\n"
           "           This would perform calibration for all combinations: (5180,0), (5180,7), "
           "(5800,0), (5800,7)\n"
           "  Example: " +
           p + " -d 1 -fast-calibrate\n" + "  Example: " + p +
           " -fast-calibrate -mp -f 2412 -f 5180 -f 5805 -m 0 -m 3 -temp_test\n" +
           R"(           Fast cal for (2412,0), (2412,3), (5180,0), (5180,3), (5805,0), (5805,3)

Other Options:
  -help or help          : Display this help message and exit.
)";
}

struct Expected {
    std::vector<std::string> args;
    std::string err;
    std::string out;
    int status;
};

void expect_runs(const std::vector<Expected>& cases) {
    orca_test::ProcessOptions options;
    options.path_prefix = FAKE_BIN_DIR;
    for (const Expected& c : cases) {
        std::vector<std::string> argv{kTool};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        std::string shown;
        for (const auto& a : c.args)
            shown += a + " ";
        SCOPED_TRACE(shown);
        const orca_test::ProcessResult result = orca_test::run_process(argv, options);
        EXPECT_EQ(result.err, c.err);
        EXPECT_EQ(result.out, c.out);
        EXPECT_EQ(result.exit_status, c.status);
    }
}

std::vector<std::string> repeated(const std::string& option, int times) {
    std::vector<std::string> args{"-d", "3", "-calibrate"};
    for (int i = 0; i < times; ++i)
        args.insert(args.end(), {option, std::to_string(5000 + i)});
    return args;
}

TEST(CommandLine, HelpShowsCurrentSamplingAndPause) {
    expect_runs({
        {{"-d", "5", "-help"}, "", help_text(), 0},
        {{"-d", "5", "help", "-no-such-option"}, "", help_text(), 0},
        {{"-s", "10", "-d", "5", "-p", "0.25", "-help"}, "", help_text(10, "0.250"), 0},
    });
}

TEST(CommandLine, BusIsSettledBeforeOtherOptions) {
    const std::string scan_failed =
        "ERROR: No VTX found after scanning I2C buses 0-15 (16 ports total)\n";
    const std::string bad_bus = "Error: -d option requires an integer value.\n";
    expect_runs({
        {{}, scan_failed, help_text(), 1},
        {{"-help"}, scan_failed, help_text(), 1},
        {{"-d"}, bad_bus, help_text(), 1},
        {{"-d", "x1", "-help"}, bad_bus, help_text(), 1},
        {{"-d", "5", "-help", "-d"}, bad_bus, help_text(), 1},
        {{"-d", "1x"}, kOpenFailed, "", 1},
    });
}

TEST(CommandLine, BadValuesAndUnknownOptionsShowHelp) {
    auto help_after = [](std::vector<std::string> args, const std::string& err) {
        args.insert(args.begin(), {"-d", "3"});
        return Expected{args, err, help_text(), 1};
    };
    expect_runs({
        help_after({"-f"}, "Error: -f option requires a numeric frequency value.\n"),
        help_after({"-f", "-5180"}, "Error: -f option requires a numeric frequency value.\n"),
        help_after({"-m", "x"}, "Error: -m option requires a numeric MCS value.\n"),
        help_after({"-m"}, "Error: -m option requires a numeric MCS value.\n"),
        help_after({"-adjust-mW"}, "Error: -adjust-mW requires a numeric value.\n"),
        help_after({"-adjust-dbm"}, "Error: -adjust-dbm requires a numeric value.\n"),
        help_after({"-s", ".5"}, "Error: -s option requires an integer value.\n"),
        help_after({"-s", "99999999999"}, "Error: -s option requires an integer value.\n"),
        help_after({"-p"}, "Error: -p option requires a numeric value.\n"),
        help_after({"-p", "1e999"}, "Error: -p option requires a numeric value.\n"),
        help_after({"--help"}, "Unknown option: --help\n"),
        help_after({"-calibrate", "-m", "0"},
                   "Error: Calibration requires at least one frequency (-f option).\n"),
        help_after({"-calibrate", "-f", "5180"},
                   "Error: Calibration requires at least one MCS value (-m option).\n"),
        {repeated("-f", 11), "Error: Maximum number of frequencies (10) exceeded.\n", help_text(),
         1},
        {repeated("-m", 11), "Error: Maximum number of MCS values (10) exceeded.\n", help_text(),
         1},
    });
}

TEST(CommandLine, ConflictsAbsentVtxAndRangesAreRefusedWithoutHelp) {
    const std::string together = "Error: -calibrate and -fast-calibrate cannot be used together.\n";
    expect_runs({
        {{"-d", "4", "-calibrate"},
         "Error: Cannot calibrate - VTX not found on I2C bus 4\n",
         "",
         1},
        {{"-d", "5", "-fast-calibrate"},
         "Error: Cannot fast calibrate - VTX not found on I2C bus 5\n",
         "",
         1},
        {{"-d", "3", "-calibrate", "-f", "1", "-fast-calibrate"}, together, "", 1},
        {{"-d", "3", "-fast-calibrate", "-calibrate", "-x"}, together, "", 1},
        {{"-d", "3", "-mp"}, "Error: -mp only applies to -calibrate and -fast-calibrate.\n", "", 1},
        {{"-d", "5", "-adjust-mW", "4.9"}, "Error: mW value must be between 5 and 1000.\n", "", 1},
        {{"-d", "5", "-adjust-mW", "nan"}, "Error: mW value must be between 5 and 1000.\n", "", 1},
        {{"-d", "5", "-adjust-dbm", "30.01"},
         "Error: Desired dBm must be between 0 and 30.\n",
         "",
         1},
        {{"-d", "5", "-adjust-dbm", "-1"}, "Error: Desired dBm must be between 0 and 30.\n", "", 1},
    });
}

TEST(CommandLine, AcceptedCommandLinesGoOnToOpenTheBus) {
    const std::string temp_test =
        "Temperature testing enabled. Calibration will stop if temperature exceeds 75.0°C\n";
    expect_runs({
        {{"-d", "5"}, kOpenFailed, "", 1},
        {{"-d", "5", "-adjust-dbm", "30", "-s", "10", "-p", "1"}, kOpenFailed, "", 1},
        {{"-d", "5", "-adjust-mW", "1000"}, kOpenFailed, "", 1},
        {{"-d", "5", "-adjust-dbm", "0", "-adjust-mW", "5"}, kOpenFailed, "", 1},
        {{"-d", "3", "-mp", "-calibrate", "-f", "5180", "-m", "0"}, kOpenFailed, "", 1},
        {{"-d", "3", "-fast-calibrate", "--mp", "-temp_test"}, temp_test + kOpenFailed, "", 1},
    });
}

}  // namespace
