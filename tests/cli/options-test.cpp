// What parse_arguments leaves in the option globals for main and the calibration driver, and
// the debug lines that no option can switch on. On a simulated board whose bus 3 carries the
// detector pair and bus 4 nothing; the presence test runs the real i2cdetect on them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "board-sim.h"
#include "capture_output.h"
#include "i2c-monitor.h"
#include "option_globals.h"
#include "orca-vtx-i2c-monitor.h"

namespace {

const OptionGlobals kStart;

class ParseArguments : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // i2cdetect lives in /usr/sbin, which a user's PATH may lack.
        setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin").c_str(), 1);
    }
    void SetUp() override {
        ASSERT_TRUE(board_sim::active()) << "run under libboard-sim.so (orca_add_sim_test)";
        board_sim::reset_board();
        set_board(3);
        kStart.restore();
    }
    void TearDown() override { kStart.restore(); }

    // Buses 3 and 4; the pair on `vtx_bus` (-1: nowhere).
    static void set_board(int vtx_bus) {
        ASSERT_EQ(board_sim::update_board_state([&](board_sim::BoardState* state) {
                      state->buses = {3, 4};
                      state->adc_bus = state->temp_bus = vtx_bus;
                  }),
                  0);
    }

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
    EXPECT_EQ(parse({"-d", "7", "-d", "123456789012345"}), RUN_MODE_MONITOR);
    EXPECT_STREQ(I2C_DEVICE, "/dev/i2c-12345678901");
    EXPECT_EQ(parse({"-d", "1x"}), RUN_MODE_MONITOR);
    EXPECT_STREQ(I2C_DEVICE, "/dev/i2c-1x");
    // The presence test gets the value cut to 11 characters, as the device name does:
    // i2cdetect reads 00000000003 as bus 3, but 000000000031 would be bus 31.
    const std::vector<std::string> calibrate = {"-calibrate", "-f", "5180", "-m", "0"};
    std::vector<std::string> args = {"-d", "000000000031"};
    args.insert(args.end(), calibrate.begin(), calibrate.end());
    EXPECT_EQ(parse(args), RUN_MODE_CALIBRATE) << printed_.err;
    EXPECT_STREQ(I2C_DEVICE, "/dev/i2c-00000000003");
    // A bus text that would run commands of its own never reaches the shell, where this one
    // would find the pair.
    args = {"-d", "3|cat"};
    args.insert(args.end(), calibrate.begin(), calibrate.end());
    EXPECT_EQ(parse(args), RUN_MODE_ERROR);
    EXPECT_EQ(printed_.err, "Error: Cannot calibrate - VTX not found on I2C bus 3|cat\n");
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

    // Without the pair the scan names every bus but the two that exist.
    set_board(-1);
    std::string missing;
    for (int bus = 0; bus <= 16; ++bus)
        if (bus != 3 && bus != 4)
            missing +=
                "I2C bus " + std::to_string(bus) + " device file does not exist, skipping...\n";
    EXPECT_EQ(parse({"-s", "7"}), RUN_MODE_ERROR);
    EXPECT_EQ(printed_.out.substr(0, missing.size() + 6), missing + "Usage:");
    EXPECT_EQ(printed_.err, "ERROR: No VTX found after scanning I2C buses 0-15 (16 ports total)\n");
}

}  // namespace
