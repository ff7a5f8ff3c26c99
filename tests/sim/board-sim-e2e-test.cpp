// Programs on the simulated board as a user runs them: the real i2cdetect, the tool's bus
// scan and presence test, and a run that writes to the fixed paths. The simulated service
// command and the virtual clock of child processes are exercised by the monitor tests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "board_run.h"

namespace {

const std::string kTool = ORCA_MONITOR_BINARY;

orca_test::ProcessResult on_board(const std::vector<std::string>& options,
                                  const std::vector<std::string>& command) {
    return orca_test::run_on_board(options, command).result;
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

// A shell of the build machine starts a program of the target machine: in a cross build the
// program runs under the emulator, and sees the board through the preload of its own machine.
TEST(BoardSimEndToEnd, HostShellStartsATargetProgramOnTheBoard) {
    const auto result = on_board(
        {}, {"sh", "-c", std::string("uname -m; ") + ORCA_MACHINE_PROBE + " 'one two' three"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, std::string(ORCA_HOST_MACHINE) + "\n" + ORCA_TARGET_MACHINE +
                              " on the board: [one two] [three]\n");
}

TEST(BoardSimEndToEnd, ToolScanFindsTheBusThatCarriesThePair) {
    const std::string buses = "buses=0,1,2,3";
    const struct {
        std::vector<std::string> board;
        std::string out_start, err;
        int status;
    } cases[] = {
        {{}, "Found VTX on I2C bus 1\nUsage: ", "", 0},
        {{"--set", buses, "--set", "adc_bus=3", "--set", "temp_bus=3"},
         "Found VTX on I2C bus 3\nUsage: ",
         "",
         0},
        // Only one of the pair is not the pair.
        {{"--set", buses, "--set", "adc_bus=3", "--set", "temp_bus=2"},
         "Usage: ",
         "ERROR: No VTX found after scanning I2C buses 0-15 (16 ports total)\n",
         1},
    };
    for (const auto& c : cases) {
        const auto result = on_board(c.board, {kTool, "-help"});
        EXPECT_EQ(result.exit_status, c.status);
        EXPECT_EQ(result.err, c.err);
        EXPECT_EQ(result.out.rfind(c.out_start, 0), 0u) << result.out;
    }

    const auto result =
        on_board({"--set", "buses=1,2"}, {kTool, "-d", "2", "-calibrate", "-f", "5180", "-m", "0"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "Error: Cannot calibrate - VTX not found on I2C bus 2\n");
    EXPECT_EQ(result.out, "");
}

TEST(BoardSimEndToEnd, RunLeavesTheHostsFixedPathsAlone) {
    const std::string data_before = snapshot("/data/quillon/vtx");
    const std::string run_before = snapshot("/run/fjp");
    orca_test::TempDir dir;
    const std::string root = dir.path() + "/board";
    auto result = orca_test::run_on_board(
                      {},
                      {"sh", "-c",
                       "echo 1 > /data/quillon/vtx/calibrated_5_8.csv && "
                       "mkdir -p /run/fjp/host_check && touch /run/fjp/host_check/info && "
                       "cat /data/quillon/vtx/calibrated_5_8.csv"},
                      root)
                      .result;
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.out, "1\n");
    EXPECT_EQ(snapshot("/data/quillon/vtx"), data_before);
    EXPECT_EQ(snapshot("/run/fjp"), run_before);
    EXPECT_EQ(access((root + "/data/quillon/vtx/calibrated_5_8.csv").c_str(), F_OK), 0);
    EXPECT_EQ(access((root + "/run/fjp/host_check/info").c_str(), F_OK), 0);
}

TEST(BoardSimEndToEnd, OddFramesAreReportedAndTheTraceShowsThem) {
    // i2cset sends the converter a lone 0x55, which is no command of it: on purpose here.
    const std::vector<std::string> odd_frame = {"i2cset", "-y", "1", "0x1d", "0x55"};
    auto run = orca_test::run_on_board({"--no-publisher"}, odd_frame, "", {}, 1);
    EXPECT_EQ(run.result.exit_status, 0) << "the command's status stays its own";
    EXPECT_EQ(run.result.err,
              "orca-board-sim: 1 frame that no simulated device understood (ORCA_SIM_TRACE=bus "
              "shows them)\n");

    const std::string cat_table = "cat /data/quillon/vtx/5_8_mv_to_dbm.csv > /dev/null";
    const struct {
        std::string topics;
        std::vector<std::string> shown, hidden;
    } traces[] = {
        {"", {}, {"board-sim["}},
        {"bus",
         {"] bus: open /dev/i2c-1: fd ", "] bus: 1 0x1d select\n",
          "] bus: 1 0x1d write 55 UNEXPECTED\n"},
         {"] path: "}},
        {"path", {"] path: open /data/quillon/vtx/5_8_mv_to_dbm.csv -> /tmp/obs-"}, {"] bus: "}},
        {"bus,nonsense",
         {"board-sim: ORCA_SIM_TRACE: unknown topic \"nonsense\" (known: bus, path, exec, clock)\n",
          "] bus: "},
         {}},
    };
    for (const auto& t : traces) {
        SCOPED_TRACE(t.topics);
        orca_test::ProcessOptions options;
        options.env = {{"ORCA_SIM_TRACE", t.topics}};
        run = orca_test::run_on_board({"--no-publisher"},
                                      {"sh", "-c", cat_table + " && i2cset -y 1 0x1d 0x55"}, "",
                                      options, 1);
        for (const std::string& line : t.shown)
            EXPECT_NE(run.result.err.find(line), std::string::npos) << line << "\n"
                                                                    << run.result.err;
        for (const std::string& line : t.hidden)
            EXPECT_EQ(run.result.err.find(line), std::string::npos) << line << "\n"
                                                                    << run.result.err;
    }
}

// A value of orca-board-sim's --report, or NAN.
double reported(const std::string& report, const std::string& key) {
    const size_t at = report.find(key + "=");
    return at == std::string::npos ? NAN : std::atof(report.c_str() + at + key.size() + 1);
}

TEST(BoardSimEndToEnd, BoardProfilesAndPopulationWithTheirTruthInTheReport) {
    auto result = on_board({"--board", "golden"}, {"true"});
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_NE(result.err.find("unknown board \"golden\""), std::string::npos) << result.err;
    for (const char* bad : {"settle_ms=-1", "pa0_gain_db=x", "stuck_index=2.5"}) {
        result = on_board({"--board", "typical", "--set", bad}, {"true"});
        EXPECT_EQ(result.exit_status, 2) << bad;
    }
    result = on_board({"--board-seed", "x"}, {"true"});
    EXPECT_EQ(result.exit_status, 2);

    orca_test::TempDir dir;
    // The truth after a power change: settled (50 ms) long before the second is over, and
    // the same figure that the board state holds.
    auto truth = [&](const std::vector<std::string>& board, std::string* state = nullptr) {
        std::vector<std::string> options{"--no-publisher", "--set", "frequency_mhz=5805"};
        options.insert(options.end(), board.begin(), board.end());
        const auto run = orca_test::run_on_board(
            options, {"sh", "-c", "orca-configure-vtx -p 40 && sleep 1"}, dir.path() + "/board");
        EXPECT_EQ(run.result.exit_status, 0) << run.result.err;
        if (state != nullptr)
            *state = run.file("board-state");
        return run.report_text;
    };
    std::string state;
    const std::string ideal = truth({}, &state);
    EXPECT_NE(ideal.find("temperature_c=25.000\nboard=ideal\nseed=1\n"), std::string::npos)
        << ideal;
    EXPECT_NEAR(reported(ideal, "true_output_dbm"), reported(state, "output_dbm"), 0.001);

    const std::string typical = truth({"--board", "typical"}, &state);
    EXPECT_NE(typical.find("board=typical\nseed=1\n"), std::string::npos) << typical;
    EXPECT_NEAR(reported(typical, "true_output_dbm"), reported(state, "output_dbm"), 0.01);
    EXPECT_GT(reported(typical, "temperature_c"), 25.0) << "a transmitting board warms up";
    // The nominal unit compresses a little at index 40, below the ideal board's output.
    const double nominal = reported(typical, "true_output_dbm");
    EXPECT_LT(nominal, reported(ideal, "true_output_dbm"));
    EXPECT_GT(nominal, reported(ideal, "true_output_dbm") - 1.0);

    // Units of the population: the same seed is the same board; seeds spread within the
    // output tolerance (2 dB of gain, 6 % of slope, the saturation's spread).
    double lowest = 99.0, highest = -99.0;
    for (int seed = 1; seed <= 12; ++seed) {
        const std::string unit = truth({"--board-seed", std::to_string(seed)});
        EXPECT_NE(unit.find("board=typical\nseed=" + std::to_string(seed) + "\n"),
                  std::string::npos)
            << unit;
        const double output = reported(unit, "true_output_dbm");
        lowest = std::min(lowest, output);
        highest = std::max(highest, output);
        if (seed == 3) {
            EXPECT_NEAR(reported(truth({"--board-seed", "3"}), "true_output_dbm"), output, 0.005);
        }
    }
    EXPECT_GT(highest - lowest, 0.5);
    EXPECT_GT(lowest, nominal - 3.5);
    EXPECT_LT(highest, nominal + 3.5);
}

}  // namespace
