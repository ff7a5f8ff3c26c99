// What parse_arguments leaves in the option globals for main and the calibration driver, and
// the debug lines that no option can switch on.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "capture_output.h"
#include "i2c-monitor.h"
#include "orca-vtx-i2c-monitor.h"
#include "option_globals.h"
#include "run_process.h"

namespace {

const OptionGlobals kStart;

class ParseArguments : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        setenv("PATH", (std::string(FAKE_BIN_DIR) + ":" + getenv("PATH")).c_str(), 1);
    }
    void SetUp() override { kStart.restore(); }
    void TearDown() override { kStart.restore(); }

    RunMode parse(std::vector<std::string> args) {
        args.insert(args.begin(), "orca-vtx-i2c-monitor");
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        RunMode mode = RUN_MODE_ERROR;
        printed_ = orca_test::capture_output(
            [&] { mode = parse_arguments(static_cast<int>(argv.size()), argv.data()); });
        return mode;
    }
    static std::vector<int> list(const int* values, int count) { return {values, values + count}; }
    static std::vector<int> frequencies() {
        return list(g_calib_params.frequencies, g_calib_params.num_frequencies);
    }
    static std::vector<int> mcs() { return list(g_calib_params.mcs, g_calib_params.num_mcs); }

    orca_test::Printed printed_;
};

TEST_F(ParseArguments, CalibrationRequestKeepsOrderAndDuplicates) {
    EXPECT_EQ(parse({"-d", "3", "-f", "5805", "-mp", "-f", "2412", "-calibrate", "-f", "5805", "-m",
                     "7", "-m", "0", "-m", "7"}),
              RUN_MODE_CALIBRATE);
    EXPECT_EQ(frequencies(), (std::vector<int>{5805, 2412, 5805}));
    EXPECT_EQ(mcs(), (std::vector<int>{7, 0, 7}));
    EXPECT_TRUE(g_mp_mode && g_calibrate_f_flag && g_calibrate_m_flag);
}

TEST_F(ParseArguments, FastCalibrationDefaultsEachListOnItsOwn) {
    const std::vector<int> anchors{2412, 5180, 5805}, low_mcs{0, 3};
    EXPECT_EQ(parse({"-d", "3", "-fast-calibrate"}), RUN_MODE_FAST_CALIBRATE);
    EXPECT_EQ(frequencies(), anchors);
    EXPECT_EQ(mcs(), low_mcs);
    EXPECT_EQ(parse({"-d", "3", "-f", "2437", "-fast-calibrate"}), RUN_MODE_FAST_CALIBRATE);
    EXPECT_EQ(frequencies(), std::vector<int>{2437});
    EXPECT_EQ(mcs(), low_mcs);
    EXPECT_EQ(parse({"-d", "3", "-fast-calibrate", "-m", "7"}), RUN_MODE_FAST_CALIBRATE);
    EXPECT_EQ(frequencies(), anchors);
    EXPECT_EQ(mcs(), std::vector<int>{7});
}

TEST_F(ParseArguments, BusValueNamesTheDeviceAndThePresenceTest) {
    orca_test::TempDir dir;
    const std::string log = dir.path() + "/i2cdetect.log";
    setenv("FAKE_I2CDETECT_LOG", log.c_str(), 1);
    EXPECT_EQ(parse({"-d", "7", "-d", "123456789012345"}), RUN_MODE_MONITOR);
    EXPECT_STREQ(I2C_DEVICE, "/dev/i2c-12345678901");
    EXPECT_EQ(parse({"-d", "1x"}), RUN_MODE_MONITOR);
    EXPECT_STREQ(I2C_DEVICE, "/dev/i2c-1x");
    // A bus text that would run commands of its own never reaches the shell.
    EXPECT_EQ(parse({"-d", "3;true", "-calibrate"}), RUN_MODE_ERROR);
    EXPECT_EQ(printed_.err, "Error: Cannot calibrate - VTX not found on I2C bus 3;true\n");
    unsetenv("FAKE_I2CDETECT_LOG");
    EXPECT_EQ(orca_test::read_file(log), "-r -y 12345678901\n-r -y 1x\n");
}

// The debug lines, which no option switches on: the summary shows the tuning that monitor
// mode runs with (a calibration list given to monitor mode goes nowhere), and the scan names
// every missing bus.
TEST_F(ParseArguments, DebugPrintsSummariseMonitorSettingsAndNameMissingBuses) {
    Debug_Prints = 1;
    EXPECT_EQ(parse({"-d", "5"}), RUN_MODE_MONITOR);
    EXPECT_EQ(printed_.out,
              "I2C Device: /dev/i2c-5\nAverage Sampling: 300\nPause Between Prints: 0.00 "
              "seconds\nAdjust dBm: Disabled (Desired dBm: 25.00)\n");
    EXPECT_EQ(
        parse({"-d", "5", "-f", "5180", "-m", "1", "-s", "42", "-p", "0.25", "-adjust-mW", "100"}),
        RUN_MODE_MONITOR);
    EXPECT_EQ(printed_.out,
              "I2C Device: /dev/i2c-5\nAverage Sampling: 42\nPause Between Prints: 0.25 "
              "seconds\nAdjust dBm: Enabled (Desired dBm: 20.00)\n");
    EXPECT_EQ(g_calib_params.num_frequencies + g_calib_params.num_mcs, 0);
    EXPECT_FALSE(g_calibrate_f_flag || g_calibrate_m_flag);

    // The last, since a machine with real buses cannot show it.
    std::string missing;
    for (int bus = 0; bus <= 16; ++bus) {
        if (access(("/dev/i2c-" + std::to_string(bus)).c_str(), F_OK) == 0)
            GTEST_SKIP() << "this machine has /dev/i2c-" << bus;
        missing += "I2C bus " + std::to_string(bus) + " device file does not exist, skipping...\n";
    }
    EXPECT_EQ(parse({"-s", "7"}), RUN_MODE_ERROR);
    EXPECT_EQ(printed_.out.substr(0, missing.size() + 6), missing + "Usage:");
    EXPECT_EQ(printed_.err, "ERROR: No VTX found after scanning I2C buses 0-15 (16 ports total)\n");
}

}  // namespace
