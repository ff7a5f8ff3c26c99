// The command line as an operator meets it: the built tool run with arguments on a simulated
// board, its standard output, standard error and exit status compared exactly. Bus 3 carries
// the detector pair and bus 4 nothing; no other bus exists.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "board_run.h"

namespace {

const std::string kTool = ORCA_MONITOR_BINARY;
const std::string kOpened = "Failed to open the i2c bus: No such file or directory\n";
// What the presence test's i2cdetect says about a bus that does not exist.
const std::string kNoBus5 =
    "Error: Could not open file `/dev/i2c-5' or `/dev/i2c/5': No such file or directory\n";

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at))
        text.replace(at, from.size(), to), at += to.size();
    return text;
}

std::string help(const std::string& samples = "300", const std::string& pause = "0.000") {
    std::string text = orca_test::read_file(HELP_TEXT_FILE);
    text = replaced(replaced(text, "@PROGRAM@", kTool), "@SAMPLES@", samples);
    return replaced(text, "@PAUSE@", pause);
}

// One run: the arguments separated by blanks, then what the tool must show.
struct Run {
    std::string args, err, out;
    int status;
};

const std::vector<std::string> kVtxOnBus3 = {"--no-publisher", "--set", "buses=3,4", "--set",
                                             "adc_bus=3",      "--set", "temp_bus=3"};
// The same buses without the pair, for the bus scan to find nothing.
const std::vector<std::string> kNoVtx = {"--no-publisher", "--set", "buses=3,4",  "--set",
                                         "adc_bus=-1",     "--set", "temp_bus=-1"};

// The presence test reads this bus value as bus 3, but no /dev/i2c-00000000003 exists: a
// command line that parses ends at opening the bus.
const std::string kBus3ButNoDevice = "-d 00000000003";

void expect_runs(const std::vector<Run>& runs, const std::vector<std::string>& board = kVtxOnBus3) {
    for (const Run& run : runs) {
        SCOPED_TRACE(run.args);
        std::vector<std::string> argv{kTool};
        std::istringstream words(run.args);
        for (std::string word; words >> word;)
            argv.push_back(word);
        const orca_test::ProcessResult result = orca_test::run_on_board(board, argv).result;
        EXPECT_EQ(result.err, run.err);
        EXPECT_EQ(result.out, run.out);
        EXPECT_EQ(result.exit_status, run.status);
    }
}

std::string repeated(const std::string& option, int times) {
    std::string args;
    for (int i = 0; i < times; ++i)
        args += " " + option + " " + std::to_string(5000 + i);
    return args;
}

TEST(CommandLine, HelpAndTheBusSettledBeforeIt) {
    const std::string scan = "ERROR: No VTX found after scanning I2C buses 0-15 (16 ports total)\n";
    const std::string bad_bus = "Error: -d option requires an integer value.\n";
    expect_runs(
        {
            {"-d 4 -help", "", help(), 0},
            {"-d 4 help -no-such-option", "", help(), 0},
            {"-s 10 -d 4 -p 0.25 -help", "", help("10", "0.250"), 0},
            {"", scan, help(), 1},
            {"-help", scan, help(), 1},
            {"-d", bad_bus, help(), 1},
            {"-d x1 -help", bad_bus, help(), 1},
        },
        kNoVtx);
}

TEST(CommandLine, BadValuesAndUnknownOptionsShowHelp) {
    expect_runs({
        {"-d 3 -f", "Error: -f option requires a numeric frequency value.\n", help(), 1},
        {"-d 3 -m x", "Error: -m option requires a numeric MCS value.\n", help(), 1},
        {"-d 3 -adjust-mW", "Error: -adjust-mW requires a numeric value.\n", help(), 1},
        {"-d 3 -adjust-dbm", "Error: -adjust-dbm requires a numeric value.\n", help(), 1},
        {"-d 3 -s .5", "Error: -s option requires an integer value.\n", help(), 1},
        {"-d 3 -s 99999999999", "Error: -s option requires an integer value.\n", help(), 1},
        {"-d 3 -p", "Error: -p option requires a numeric value.\n", help(), 1},
        {"-d 3 -p 1e999", "Error: -p option requires a numeric value.\n", help(), 1},
        {"-d 3 --help", "Unknown option: --help\n", help(), 1},
        {"-d 3 -calibrate -m 0",
         "Error: Calibration requires at least one frequency (-f option).\n", help(), 1},
        {"-d 3 -calibrate -f 1",
         "Error: Calibration requires at least one MCS value (-m option).\n", help(), 1},
        {"-d 3" + repeated("-f", 11), "Error: Maximum number of frequencies (10) exceeded.\n",
         help(), 1},
        {"-d 3" + repeated("-m", 11), "Error: Maximum number of MCS values (10) exceeded.\n",
         help(), 1},
    });
}

TEST(CommandLine, ConflictsAbsentVtxAndRangesAreRefusedWithoutHelp) {
    const std::string both = "Error: -calibrate and -fast-calibrate cannot be used together.\n";
    const std::string mw = "Error: mW value must be between 5 and 1000.\n";
    const std::string dbm = "Error: Desired dBm must be between 0 and 30.\n";
    expect_runs({
        {"-d 4 -calibrate", "Error: Cannot calibrate - VTX not found on I2C bus 4\n", "", 1},
        {"-d 4 -fast-calibrate", "Error: Cannot fast calibrate - VTX not found on I2C bus 4\n", "",
         1},
        {"-d 3 -calibrate -f 1 -fast-calibrate", both, "", 1},
        {"-d 3 -fast-calibrate -calibrate -x", both, "", 1},
        {"-d 3 -mp", "Error: -mp only applies to -calibrate and -fast-calibrate.\n", "", 1},
        {"-d 4 -adjust-mW 4.9", mw, "", 1},
        {"-d 4 -adjust-mW nan", mw, "", 1},
        {"-d 4 -adjust-dbm 30.01", dbm, "", 1},
        {"-d 4 -adjust-dbm -1", dbm, "", 1},
    });
}

TEST(CommandLine, AcceptedCommandLinesGoOnToOpenTheBus) {
    const std::string temp_test =
        "Temperature testing enabled. Calibration will stop if temperature exceeds 75.0°C\n";
    expect_runs({
        {"-d 5", kNoBus5 + kOpened, "", 1},
        {"-d 5 -adjust-dbm 30 -s 10 -p 1", kNoBus5 + kOpened, "", 1},
        {"-d 5 -adjust-dbm 0 -adjust-mW 5 -adjust-mW 1000", kNoBus5 + kOpened, "", 1},
        {kBus3ButNoDevice + " -mp -calibrate -m 0" + repeated("-f", 10), kOpened, "", 1},
        {kBus3ButNoDevice + " -fast-calibrate --mp -temp_test" + repeated("-m", 10),
         temp_test + kOpened, "", 1},
    });
}

}  // namespace
