// What parse_arguments leaves in the option globals for main and the calibration driver, and
// the debug lines that no option can switch on.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "i2c-monitor.h"
#include "orca-vtx-i2c-monitor.h"
#include "run_process.h"

namespace {

// The option globals as the process started with them, put back before every case.
struct OptionGlobals {
    char device[sizeof I2C_DEVICE];
    int samples = Average_Sampling, debug = Debug_Prints;
    double pause = PAUSE_BETWEEN_PRINTS, dbm = desired_dBm;
    bool adjust = adjust_power, mp = g_mp_mode, temp = g_temp_test_flag;
    bool f_flag = g_calibrate_f_flag, m_flag = g_calibrate_m_flag;
    CalibrationParams params = g_calib_params;
    OptionGlobals() { std::copy(I2C_DEVICE, I2C_DEVICE + sizeof device, device); }
    void restore() const {
        std::copy(device, device + sizeof device, I2C_DEVICE);
        Average_Sampling = samples, Debug_Prints = debug, PAUSE_BETWEEN_PRINTS = pause;
        desired_dBm = dbm, adjust_power = adjust, g_mp_mode = mp, g_temp_test_flag = temp;
        g_calibrate_f_flag = f_flag, g_calibrate_m_flag = m_flag, g_calib_params = params;
    }
};
const OptionGlobals kStart;

// Sends one standard stream into a file while the code under test runs.
class Capture {
  public:
    explicit Capture(int fd) : fd_(fd), saved_(dup(fd)), file_(tmpfile()) {
        fflush(nullptr);
        dup2(fileno(file_), fd_);
    }
    std::string text() {
        fflush(nullptr);
        dup2(saved_, fd_);
        close(saved_);
        rewind(file_);
        std::string all;
        for (int c = fgetc(file_); c != EOF; c = fgetc(file_))
            all += static_cast<char>(c);
        fclose(file_);
        return all;
    }

  private:
    int fd_, saved_;
    FILE* file_;
};

class ParseArguments : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        const std::string path = std::string(FAKE_BIN_DIR) + ":" + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
    }
    void SetUp() override { kStart.restore(); }
    void TearDown() override { kStart.restore(); }

    RunMode parse(std::vector<std::string> args) {
        args.insert(args.begin(), "orca-vtx-i2c-monitor");
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        Capture out(1), err(2);
        const RunMode mode = parse_arguments(static_cast<int>(args.size()), argv.data());
        out_ = out.text(), err_ = err.text();
        return mode;
    }
    std::vector<int> frequencies() const {
        return {g_calib_params.frequencies,
                g_calib_params.frequencies + g_calib_params.num_frequencies};
    }
    std::vector<int> mcs() const {
        return {g_calib_params.mcs, g_calib_params.mcs + g_calib_params.num_mcs};
    }

    std::string out_, err_;
};

TEST_F(ParseArguments, FullCalibrationKeepsOrderAndDuplicates) {
    EXPECT_EQ(parse({"-d", "3", "-f", "5805", "-mp", "-f", "2412", "-calibrate", "-f", "5805", "-m",
                     "7", "-m", "0", "-m", "7"}),
              RUN_MODE_CALIBRATE);
    EXPECT_EQ(frequencies(), (std::vector<int>{5805, 2412, 5805}));
    EXPECT_EQ(mcs(), (std::vector<int>{7, 0, 7}));
    EXPECT_TRUE(g_mp_mode && g_calibrate_f_flag && g_calibrate_m_flag);
}

TEST_F(ParseArguments, FastCalibrationDefaultsEachListOnItsOwn) {
    const std::vector<int> anchors{2412, 5180, 5805};
    EXPECT_EQ(parse({"-d", "3", "-fast-calibrate"}), RUN_MODE_FAST_CALIBRATE);
    EXPECT_EQ(frequencies(), anchors);
    EXPECT_EQ(mcs(), (std::vector<int>{0, 3}));

    EXPECT_EQ(parse({"-d", "3", "-f", "2437", "-fast-calibrate"}), RUN_MODE_FAST_CALIBRATE);
    EXPECT_EQ(frequencies(), (std::vector<int>{2437}));
    EXPECT_EQ(mcs(), (std::vector<int>{0, 3}));

    EXPECT_EQ(parse({"-d", "3", "-fast-calibrate", "-m", "7"}), RUN_MODE_FAST_CALIBRATE);
    EXPECT_EQ(frequencies(), anchors);
    EXPECT_EQ(mcs(), (std::vector<int>{7}));
}

TEST_F(ParseArguments, ListsHoldTenValuesEach) {
    std::vector<std::string> args{"-d", "3", "-calibrate"};
    for (int i = 0; i < 10; ++i)
        args.insert(args.end(), {"-f", std::to_string(5000 + i), "-m", std::to_string(i)});
    ASSERT_EQ(parse(args), RUN_MODE_CALIBRATE);
    EXPECT_EQ(g_calib_params.num_frequencies, 10);
    EXPECT_EQ(g_calib_params.frequencies[9], 5009);
    EXPECT_EQ(mcs(), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST_F(ParseArguments, MonitorModeSetsTuningAndLeavesCalibrationRequestEmpty) {
    EXPECT_EQ(
        parse({"-d", "5", "-f", "5180", "-m", "1", "-s", "10", "-p", "0.5", "-adjust-mW", "100"}),
        RUN_MODE_MONITOR);
    EXPECT_EQ(g_calib_params.num_frequencies + g_calib_params.num_mcs, 0);
    EXPECT_FALSE(g_calibrate_f_flag || g_calibrate_m_flag);
    EXPECT_EQ(Average_Sampling, 10);
    EXPECT_DOUBLE_EQ(PAUSE_BETWEEN_PRINTS, 0.5);
    EXPECT_DOUBLE_EQ(desired_dBm, 20.0);
    EXPECT_TRUE(adjust_power);
    EXPECT_EQ(out_ + err_, "");
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
    EXPECT_EQ(err_, "Error: Cannot calibrate - VTX not found on I2C bus 3;true\n");

    unsetenv("FAKE_I2CDETECT_LOG");
    EXPECT_EQ(orca_test::read_file(log), "-r -y 12345678901\n-r -y 1x\n");
}

TEST_F(ParseArguments, DebugPrintsSummariseMonitorSettings) {
    Debug_Prints = 1;
    EXPECT_EQ(parse({"-d", "5"}), RUN_MODE_MONITOR);
    EXPECT_EQ(out_,
              "I2C Device: /dev/i2c-5\nAverage Sampling: 300\nPause Between Prints: 0.00 "
              "seconds\nAdjust dBm: Disabled (Desired dBm: 25.00)\n");
    EXPECT_EQ(parse({"-d", "5", "-adjust-dbm", "12.5", "-s", "42", "-p", "0.25"}),
              RUN_MODE_MONITOR);
    EXPECT_EQ(out_,
              "I2C Device: /dev/i2c-5\nAverage Sampling: 42\nPause Between Prints: 0.25 "
              "seconds\nAdjust dBm: Enabled (Desired dBm: 12.50)\n");
}

TEST_F(ParseArguments, DebugPrintsNameEveryMissingBusOfTheScan) {
    for (int bus = 0; bus <= 16; ++bus) {
        if (access(("/dev/i2c-" + std::to_string(bus)).c_str(), F_OK) == 0)
            GTEST_SKIP() << "this machine has I2C buses";
    }
    Debug_Prints = 1;
    std::string expected;
    for (int bus = 0; bus <= 16; ++bus)
        expected += "I2C bus " + std::to_string(bus) + " device file does not exist, skipping...\n";
    EXPECT_EQ(parse({"-s", "7"}), RUN_MODE_ERROR);
    EXPECT_EQ(out_.substr(0, expected.size()), expected);
    EXPECT_EQ(out_.substr(expected.size(), 6), "Usage:");
    EXPECT_EQ(err_, "ERROR: No VTX found after scanning I2C buses 0-15 (16 ports total)\n");
}

TEST(PowerConversion, MilliwattsToDbm) {
    EXPECT_DOUBLE_EQ(mW_to_dBm(1000.0), 30.0);
    EXPECT_DOUBLE_EQ(mW_to_dBm(1.0), 0.0);
    EXPECT_NEAR(mW_to_dBm(5.0), 6.9897, 1e-4);
}

}  // namespace
