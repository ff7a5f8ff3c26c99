// Programs on the simulated board as a user runs them: the real i2cdetect, the tool's bus
// scan and presence test, the simulated service command, the sandbox and the clock.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "run_process.h"

namespace {

const std::string kBoardSim = ORCA_BOARD_SIM;
const std::string kTool = ORCA_MONITOR_BINARY;

orca_test::ProcessResult on_board(const std::vector<std::string>& options,
                                  const std::vector<std::string>& command) {
    std::vector<std::string> argv{kBoardSim};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back("--");
    argv.insert(argv.end(), command.begin(), command.end());
    return orca_test::run_process(argv);
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// Every name below a host directory with its size and modification time, or "absent".
std::string snapshot(const std::string& dir) {
    namespace fs = std::filesystem;
    std::error_code error;
    if (!fs::exists(dir, error))
        return "absent";
    std::string listing;
    for (fs::recursive_directory_iterator it(dir, error), end; !error && it != end;
         it.increment(error)) {
        const auto when = fs::last_write_time(it->path(), error).time_since_epoch().count();
        const auto size = it->is_regular_file() ? it->file_size(error) : 0;
        listing +=
            it->path().string() + " " + std::to_string(size) + " " + std::to_string(when) + "\n";
    }
    return listing;
}

TEST(BoardSimEndToEnd, RealI2cdetectListsTheSimulatedTargets) {
    auto result = on_board({}, {"i2cdetect", "-r", "-y", "1"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_NE(result.out.find("\n10: -- -- -- -- -- -- -- -- -- -- -- -- -- 1d -- -- \n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("\n40: -- -- -- -- -- -- -- -- 48 -- -- -- -- -- -- -- \n"),
              std::string::npos)
        << result.out;

    result =
        on_board({"--set", "adc_bus=-1", "--set", "temp_bus=-1"}, {"i2cdetect", "-r", "-y", "1"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out.find(" 1d "), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find(" 48 "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\n70: "), std::string::npos) << "the table is still printed";
}

TEST(BoardSimEndToEnd, ToolScanFindsTheBusThatCarriesThePair) {
    auto result = on_board({}, {kTool, "-help"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out.rfind("Found VTX on I2C bus 1\nUsage: ", 0), 0u) << result.out;

    result = on_board({"--set", "buses=0,1,2,3", "--set", "adc_bus=3", "--set", "temp_bus=3"},
                      {kTool, "-help"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out.rfind("Found VTX on I2C bus 3\n", 0), 0u) << result.out;

    // Only one of the pair is not the pair.
    result = on_board({"--set", "buses=0,1,2,3", "--set", "adc_bus=3", "--set", "temp_bus=2"},
                      {kTool, "-help"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "ERROR: No VTX found after scanning I2C buses 0-15 (16 ports total)\n");
    EXPECT_EQ(result.out.rfind("Usage: ", 0), 0u) << result.out;

    result =
        on_board({"--set", "buses=1,2"}, {kTool, "-d", "2", "-calibrate", "-f", "5180", "-m", "0"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "Error: Cannot calibrate - VTX not found on I2C bus 2\n");
    EXPECT_EQ(result.out, "");
}

TEST(BoardSimEndToEnd, ConfigureCommandChangesTheBoardAndIsLogged) {
    orca_test::TempDir dir;
    const std::string root = dir.path() + "/board";
    auto result = on_board({"--root", root}, {"sh", "-c",
                                              "orca-configure-vtx -p 30 -F 5180 -m 3 && "
                                              "orca-configure-vtx -p 99; echo status $?"});
    EXPECT_EQ(result.out, "status 1\n");
    EXPECT_NE(result.err.find("orca-configure-vtx: bad option -p 99"), std::string::npos);
    EXPECT_EQ(orca_test::read_file(root + "/commands.log"),
              "orca-configure-vtx -p 30 -F 5180 -m 3\norca-configure-vtx -p 99\n");
    const std::string state = orca_test::read_file(root + "/board-state");
    for (const char* line : {"power_index=30\n", "frequency_mhz=5180\n", "mcs=3\n"})
        EXPECT_NE(state.find(line), std::string::npos) << line << state;
    EXPECT_EQ(state.find("output_dbm=0\n"), std::string::npos) << "output follows the index";
}

TEST(BoardSimEndToEnd, RunLeavesTheHostsFixedPathsAlone) {
    const std::string data_before = snapshot("/data/quillon/vtx");
    const std::string run_before = snapshot("/run/fjp");
    orca_test::TempDir dir;
    const std::string root = dir.path() + "/board";
    auto result = on_board({"--root", root},
                           {"sh", "-c",
                            "echo 1 > /data/quillon/vtx/calibrated_5_8.csv && "
                            "mkdir -p /run/fjp/host_check && touch /run/fjp/host_check/info && "
                            "cat /data/quillon/vtx/calibrated_5_8.csv"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "1\n");
    EXPECT_EQ(snapshot("/data/quillon/vtx"), data_before);
    EXPECT_EQ(snapshot("/run/fjp"), run_before);
    EXPECT_TRUE(exists(root + "/data/quillon/vtx/calibrated_5_8.csv"));
    EXPECT_TRUE(exists(root + "/run/fjp/host_check/info"));
}

TEST(BoardSimEndToEnd, SleepsOfChildProcessesAreVirtualAndReported) {
    orca_test::TempDir dir;
    const std::string report = dir.path() + "/report";
    auto result = on_board({"--report", report}, {"sh", "-c", "sleep 100; sleep 0.5"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(orca_test::read_file(report), "wait_ns=100500000000\nbus_ns=0\n");

    result = on_board({"--set", "bogus"}, {"true"});
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_NE(result.err.find("expected key=value"), std::string::npos) << result.err;
}

}  // namespace
