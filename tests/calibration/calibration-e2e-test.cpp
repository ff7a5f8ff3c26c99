// -calibrate and -fast-calibrate as an operator runs them: the built tool on the simulated
// board, with the service's commands or the MP script as the transmit source. Each run gets
// a board directory of its own, so a test can leave a calibration file there beforehand and
// read the files and logs afterwards.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "board_run.h"
#include "i2c-monitor.h"
#include "listed_calibration_tables.h"
#include "mv-to-dbm-file.h"
#include <orca-vtx/orca-vtx-helpers.h>

namespace {

using Rows = std::vector<std::string>;
using orca_test::BoardRun;

Rows split(const std::string& text, char separator = '\n') {
    Rows parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);)
        parts.push_back(part);
    return parts;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A calibration file of the run's sandbox, by band tag.
std::string calibration_path(const std::string& tag) {
    return "/data/quillon/vtx/calibrated_" + tag + ".csv";
}

class CalibrationEndToEnd : public testing::Test {
  protected:
    // Runs the tool on bus 1 of a fresh board; `seed` is a calibration file left beforehand.
    orca_test::BoardRun calibrate(const std::vector<std::string>& board_options,
                                  const std::vector<std::string>& tool_options,
                                  const std::string& seed_tag = "", const std::string& seed = "") {
        const std::string board = "board" + std::to_string(++runs_);
        if (!seed_tag.empty())
            dir_.write_file(board + calibration_path(seed_tag), seed);
        std::vector<std::string> command{ORCA_MONITOR_BINARY, "-d", "1"};
        command.insert(command.end(), tool_options.begin(), tool_options.end());
        return orca_test::run_on_board(board_options, command, dir_.path() + "/" + board);
    }

    orca_test::TempDir dir_;
    int runs_ = 0;
};

// "mV,mW" of every level the tool reported as measured, as its "Power 1" lines print them.
std::map<int, std::string> reported_cells(const std::string& out) {
    std::map<int, std::string> cells;
    for (const std::string& line : split(out)) {
        int level = 0;
        char mv[32], mw[32];
        if (std::sscanf(line.c_str(),
                        "Power 1 level %d: Average mV = %31[^,], dBm = %*[^,], mW = %31s", &level,
                        mv, mw) == 3)
            cells[level] = std::string(mv) + "," + mw;
    }
    return cells;
}

std::string format2(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

// The service's commands for one combination that measured `levels`, then the power reset.
Rows service_levels(int frequency, int mcs, const std::vector<int>& levels) {
    Rows expected{"orca-configure-vtx -F " + std::to_string(frequency),
                  "orca-configure-vtx -m " + std::to_string(mcs),
                  "orca-configure-vtx -F " + std::to_string(frequency)};
    for (int level : levels)
        expected.push_back("orca-configure-vtx -p " + std::to_string(level));
    expected.push_back("orca-configure-vtx -p 1");
    return expected;
}

std::vector<int> levels_up_to(int last) {
    std::vector<int> levels;
    for (int level = 1; level <= last; ++level)
        levels.push_back(level);
    return levels;
}

const std::vector<int> kAnchors = {10, 35, 45, 50, 56, 60};
const std::string kStopTest = "orca-send-command vtx_latency stop_test 1";
constexpr double kLevelSeconds = 0.65 + 3 * 0.1 + 4 * 0.060;  // settle, pauses, 4 read cycles

TEST_F(CalibrationEndToEnd, FirstRunWritesTheBandFileThatTheServiceLoads) {
    const orca_test::BoardRun run = calibrate({}, {"-calibrate", "-f", "5180", "-m", "0"});
    ASSERT_EQ(run.result.exit_status, 0) << run.result.err;
    EXPECT_EQ(run.result.err, "");
    EXPECT_TRUE(
        contains(run.result.out,
                 "Calibration complete! Data saved to /data/quillon/vtx/calibrated_5_1.csv\n"
                 "Safety measure: Power level set to 1 (minimum) after calibration\n"
                 "All calibrations completed!\n"));

    const Rows rows = split(run.file(calibration_path("5_1")));
    ASSERT_EQ(rows.size(), 64u);
    EXPECT_EQ(rows[0], "Power_Level,MCS0_mV,MCS0_mW");
    const auto reported = reported_cells(run.result.out);
    ASSERT_EQ(reported.size(), 60u);
    for (int level = 1; level <= 63; ++level)
        EXPECT_EQ(rows[level],
                  std::to_string(level) + "," + (level <= 60 ? reported.at(level) : "-1,-1"));

    Rows expected_commands = service_levels(5180, 0, levels_up_to(60));
    expected_commands.push_back(kStopTest);
    EXPECT_EQ(run.lines("commands.log"), expected_commands);
    // 4 s for the service to settle, 7 s after -F, the levels, 1 s after the run.
    EXPECT_NEAR(run.wait_seconds, 4 + 7 + 60 * kLevelSeconds + 1, 1e-6);

    // The loader keeps, per rounded mW, the level listed last.
    std::map<int, int> expected;
    for (const auto& [level, cells] : reported)
        expected[static_cast<int>(std::lround(std::stod(split(cells, ',')[1])))] = level;
    const PowerCalibrationMap loaded = loadPowerCalibrationData(run.root + calibration_path("5_1"));
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded.at(0), expected);
}

TEST_F(CalibrationEndToEnd, RerunUpdatesItsOwnColumnsOfTheFileOnDisk) {
    // Only the run's cells change, its "NA" cells become -1, empty fields go.
    const std::string existing =
        "Power_Level,MCS3_mV,MCS3_mW,MCS7_mV,MCS7_mW\n"
        "10,1.00,2.00,NA,NA\n"
        "61,NA,NA,NA,NA\n"
        "62,,,5.00,6.00\n";
    orca_test::BoardRun run =
        calibrate({}, {"-fast-calibrate", "-f", "5805", "-m", "3"}, "5_8", existing);
    ASSERT_EQ(run.result.exit_status, 0) << run.result.err;
    EXPECT_TRUE(
        contains(run.result.out, "MCS3 columns already exist in the file, they will be updated\n"));
    Rows rows = split(run.file(calibration_path("5_8")));
    ASSERT_EQ(rows.size(), 64u);
    EXPECT_EQ(rows[0], "Power_Level,MCS3_mV,MCS3_mW,MCS7_mV,MCS7_mW");
    EXPECT_EQ(rows[1], "10," + reported_cells(run.result.out).at(10) + ",NA,NA");
    EXPECT_EQ(rows[2], "61,-1,-1,NA,NA");
    EXPECT_EQ(rows[3], "62,5.00,6.00");
    EXPECT_EQ(rows[63], "63,,,NA,NA");

    // No room for the pair: the file is left empty, and the run ends at the write without
    // "Calibration complete!" and without the power reset.
    run = calibrate({}, {"-fast-calibrate", "-f", "5805", "-m", "0"}, "5_8",
                    "Power_Level," + std::string(1000, 'x') + "\n1,2,3\n");
    EXPECT_EQ(run.result.exit_status, 0);
    EXPECT_EQ(run.result.err,
              "Header would be too long after adding new columns\n"
              "Calibration failed for Frequency: 5805 MHz, MCS: 0\n");
    EXPECT_EQ(run.file(calibration_path("5_8")), "");
    EXPECT_FALSE(contains(run.result.out, "Calibration complete!"));
    EXPECT_EQ(run.lines("commands.log").end()[-2], "orca-configure-vtx -p 60");
}

TEST_F(CalibrationEndToEnd, FastRunEstimatesFromTheDefaultsShiftedByTheAnchors) {
    // This board's 5 GHz detector reads 12.5 mV above the typical one.
    const orca_test::BoardRun run = calibrate({"--set", "ch1_offset_mv=12.5"}, {"-fast-calibrate"});
    ASSERT_EQ(run.result.exit_status, 0) << run.result.err;
    EXPECT_EQ(run.result.err, "");
    for (const char* combination : {"2412 MHz, MCS: 0", "2412 MHz, MCS: 3", "5180 MHz, MCS: 0",
                                    "5180 MHz, MCS: 3", "5805 MHz, MCS: 0", "5805 MHz, MCS: 3"})
        EXPECT_TRUE(contains(
            run.result.out, std::string("Starting fast calibration for Frequency: ") + combination))
            << combination;
    EXPECT_NEAR(run.wait_seconds, 6 * (4 + 7 + 6 * kLevelSeconds + 1), 1e-6);
    for (const char* tag : {"2_4", "5_8"})
        EXPECT_EQ(split(run.file(calibration_path(tag)))[0],
                  "Power_Level,MCS0_mV,MCS0_mW,MCS3_mV,MCS3_mW");

    // MCS 0 at 5180 MHz, the first pair of the 5.1 file.
    const Rows rows = split(run.file(calibration_path("5_1")));
    ASSERT_EQ(rows.size(), 64u);
    std::map<int, double> offsets;
    for (int anchor : kAnchors)
        offsets[anchor] =
            std::stod(split(rows[anchor], ',')[1]) - orca_test::listed_mv("5_1", 0, anchor);
    const std::string table = run.root + "/data/quillon/vtx/5_1_mv_to_dbm.csv";
    for (int level = 1; level <= 60; ++level) {
        if (offsets.count(level))
            continue;
        // Below the first anchor its offset holds; between two, it is interpolated.
        const auto high = offsets.upper_bound(level);
        double offset = high->second;
        if (high != offsets.begin()) {
            const auto low = std::prev(high);
            offset = low->second + (level - low->first) * (high->second - low->second) /
                                       (high->first - low->first);
        }
        const double mv = std::max(1.0, orca_test::listed_mv("5_1", 0, level) + offset);
        const Rows cells = split(rows[level], ',');
        ASSERT_EQ(cells.size(), 5u) << rows[level];
        // The anchors reach us rounded to 0.01 mV, so ours may be 0.005 mV off the tool's
        // estimate and the file's another 0.005 mV; the mW may be a neighbouring voltage's.
        EXPECT_NEAR(std::stod(cells[1]), mv, 0.0101) << "level " << level;
        std::set<std::string> mw_choices;
        for (double nearby : {mv - 0.0051, mv, mv + 0.0051}) {
            double converted = 0.0, dbm = 0.0;
            ASSERT_EQ(read_csv_data_from_file(table.c_str(), &converted, &dbm, 0, nearby), 0);
            mw_choices.insert(format2(custom_exp10(dbm / 10.0)));
        }
        EXPECT_EQ(mw_choices.count(cells[2]), 1u) << "level " << level << ": " << rows[level];
    }
    EXPECT_EQ(rows[61].substr(0, 9), "61,-1,-1,");
}

TEST_F(CalibrationEndToEnd, SafetyStopsKeepTheLevelThatTrippedThem) {
    // Too hot at the first anchor: it records the temperature, levels below take the plain
    // defaults, nothing above is calibrated.
    orca_test::BoardRun run = calibrate({"--set", "temperature_c=76.37"},
                                        {"-fast-calibrate", "-f", "5180", "-m", "0", "-temp_test"});
    ASSERT_EQ(run.result.exit_status, 0) << run.result.err;
    EXPECT_TRUE(contains(run.result.out,
                         "°C) exceeds safety threshold of 75.0°C at power level 10\n"
                         "Stopping calibration for safety reasons\n"));
    Rows rows = split(run.file(calibration_path("5_1")));
    ASSERT_EQ(rows.size(), 64u);
    EXPECT_EQ(rows[10], "10,TEMP_ERROR_76_3,TEMP_ERROR_76_3");
    EXPECT_EQ(split(rows[4], ',')[1], format2(orca_test::listed_mv("5_1", 0, 4)));
    EXPECT_EQ(rows[11], "11,-1,-1");

    // At the limit itself the run goes on to the last anchor.
    run = calibrate({"--set", "temperature_c=75.0"},
                    {"-fast-calibrate", "-f", "5180", "-m", "0", "-temp_test"});
    ASSERT_EQ(run.result.exit_status, 0) << run.result.err;
    EXPECT_FALSE(contains(run.result.out, "exceeds safety threshold")) << run.result.out;
    EXPECT_TRUE(contains(run.result.out, "Power 1 level 60: ")) << run.result.out;
    EXPECT_TRUE(contains(run.result.out, "Temperature = 75.00°C\n")) << run.result.out;

    // Too strong: the level above 31.5 dBm is the last one measured and written.
    run = calibrate({"--set", "ch0_offset_mv=30"}, {"-calibrate", "-f", "2412", "-m", "1"});
    ASSERT_EQ(run.result.exit_status, 0) << run.result.err;
    int stop = 0;
    const size_t at = run.result.out.find("WARNING: Measured dBm (");
    ASSERT_NE(at, std::string::npos) << run.result.out;
    ASSERT_EQ(std::sscanf(run.result.out.c_str() + at,
                          "WARNING: Measured dBm (%*f) exceeds safety threshold of 31.5 dBm at "
                          "power level %d",
                          &stop),
              1);
    ASSERT_GT(stop, 1);
    rows = split(run.file(calibration_path("2_4")));
    ASSERT_EQ(rows.size(), 64u);
    EXPECT_NE(rows[stop], std::to_string(stop) + ",-1,-1");
    EXPECT_EQ(rows[stop + 1], std::to_string(stop + 1) + ",-1,-1");
    Rows expected = service_levels(2412, 1, levels_up_to(stop));
    expected.push_back(kStopTest);
    EXPECT_EQ(run.lines("commands.log"), expected);
}

TEST_F(CalibrationEndToEnd, FailedCombinationsLeaveTheirFilesAndTheRunGoesOn) {
    // From the 241st converter read on every buffer read fails: anchor 10 takes 240. 3000 MHz
    // is in no band, and the service refuses to stop its test.
    const orca_test::BoardRun run =
        calibrate({"--fault", "read:0x1d:241:0", "--set", "send_command_status=3"},
                  {"-fast-calibrate", "-f", "5180", "-f", "3000", "-m", "0"}, "5_1", "kept\n");
    ASSERT_EQ(run.result.exit_status, 0);
    std::string expected;
    for (int anchor : {35, 45, 50, 56, 60})
        expected += "Error: fast calibration anchor power level " + std::to_string(anchor) +
                    " did not produce a valid measured reading. Aborting without writing CSV.\n";
    expected +=
        "Calibration failed for Frequency: 5180 MHz, MCS: 0\n"
        "Warning: Fast calibration is not supported for 3000 MHz MCS 0; using full calibration "
        "instead.\n"
        "Error: Invalid frequency 3000 MHz\n"
        "Calibration failed for Frequency: 3000 MHz, MCS: 0\n"
        "Warning: Failed to stop vtx_latency test\n";
    EXPECT_TRUE(contains(run.result.err, expected)) << run.result.err;
    EXPECT_TRUE(contains(run.result.out,
                         "Safety measure: Power level set to 1 (minimum) after fast calibration "
                         "anchor failure\n"));
    EXPECT_EQ(run.file(calibration_path("5_1")), "kept\n");
    Rows commands = service_levels(5180, 0, kAnchors);
    commands.insert(commands.end(), {"orca-configure-vtx -F 3000", "orca-configure-vtx -m 0",
                                     "orca-configure-vtx -F 3000", kStopTest});
    EXPECT_EQ(run.lines("commands.log"), commands);
}

// dBm of every level the tool reported as measured.
std::map<int, double> reported_dbm(const std::string& out) {
    std::map<int, double> dbm;
    for (const std::string& line : split(out)) {
        int level = 0;
        double value = 0.0;
        if (std::sscanf(line.c_str(), "Power 1 level %d: Average mV = %*[^,], dBm = %lf", &level,
                        &value) == 2)
            dbm[level] = value;
    }
    return dbm;
}

double mv_cell(const BoardRun& run, const std::string& tag, int level) {
    return std::stod(split(split(run.file(calibration_path(tag)))[level], ',')[1]);
}

TEST_F(CalibrationEndToEnd, RealBoardsShapeTheFullCalibration) {
    const std::vector<std::string> run_5805 = {"-calibrate", "-f", "5805", "-m", "0"};
    // The rise over the top 15 levels: about 3 dB on the ideal board, next to nothing where
    // the amplifier saturates; a stuck index measures the same output at every level.
    const struct {
        const char* board;
        double rise_low, rise_high, span_below;
    } cases[] = {
        {"ideal", 2.5, 3.5, 99.0},
        {"saturating", -0.5, 0.5, 99.0},
        {"stuck-index", -1.0, 1.0, 1.0},
    };
    for (const auto& c : cases) {
        const BoardRun run = calibrate({"--board", c.board}, run_5805);
        ASSERT_EQ(run.result.exit_status, 0) << c.board << run.result.err;
        const auto dbm = reported_dbm(run.result.out);
        ASSERT_EQ(dbm.size(), 60u) << c.board;
        const double rise = dbm.at(60) - dbm.at(45);
        EXPECT_GT(rise, c.rise_low) << c.board;
        EXPECT_LT(rise, c.rise_high) << c.board;
        double lowest = 99.0, highest = -99.0;
        for (const auto& [level, value] : dbm) {
            lowest = std::min(lowest, value);
            highest = std::max(highest, value);
        }
        EXPECT_LT(highest - lowest, c.span_below) << c.board;
    }
}

TEST_F(CalibrationEndToEnd, HotBoardTripsTheTemperatureStopNearTheTop) {
    // Without airflow the board crosses 75 °C late in a full run: -temp_test stops it there
    // and leaves its mark in the file.
    const BoardRun run =
        calibrate({"--board", "hot"}, {"-calibrate", "-f", "5805", "-m", "0", "-temp_test"});
    ASSERT_EQ(run.result.exit_status, 0) << run.result.err;
    EXPECT_TRUE(contains(run.result.out, "Stopping calibration for safety reasons\n"));
    const Rows rows = split(run.file(calibration_path("5_8")));
    ASSERT_EQ(rows.size(), 64u);
    int stop = 0;
    for (int level = 1; level <= 60; ++level)
        if (contains(rows[level], ",TEMP_ERROR_"))
            stop = level;
    EXPECT_GE(stop, 40) << run.result.out;
    for (int level = stop + 1; level <= 60; ++level)
        EXPECT_EQ(rows[level], std::to_string(level) + ",-1,-1");
}

TEST_F(CalibrationEndToEnd, RealBoardsShapeTheFastCalibration) {
    const std::vector<std::string> fast_5805 = {"-fast-calibrate", "-f", "5805", "-m", "0"};
    const BoardRun typical = calibrate({"--board", "typical"}, fast_5805);
    ASSERT_EQ(typical.result.exit_status, 0) << typical.result.err;
    const auto nominal = reported_dbm(typical.result.out);
    ASSERT_EQ(nominal.size(), 6u);
    // Each check compares an anchor's cell (mV) or reported dBm with the typical board's.
    using Check = std::function<void(const BoardRun&, const std::map<int, double>&)>;
    const struct {
        std::vector<std::string> board;
        Check check;
    } cases[] = {
        // A dead amplifier leaves the detector at the bottom of its table everywhere.
        {{"--board", "dead-pa"},
         [&](const BoardRun&, const std::map<int, double>& dbm) {
             for (const auto& [level, value] : dbm)
                 EXPECT_LT(value, nominal.at(10) - 1.0) << "dead-pa level " << level;
         }},
        // The read cycle keeps the peak: a noisy detector reads high by about its noise.
        {{"--board", "noisy-detector"},
         [&](const BoardRun& run, const std::map<int, double>&) {
             for (int anchor : kAnchors)
                 EXPECT_NEAR(mv_cell(run, "5_8", anchor) - mv_cell(typical, "5_8", anchor), 24.0,
                             6.0)
                     << "noisy-detector anchor " << anchor;
         }},
        // Another card behind these tables: 5 dB less at the bottom of the range.
        {{"--board", "swapped-card"},
         [&](const BoardRun&, const std::map<int, double>& dbm) {
             EXPECT_LT(dbm.at(10), nominal.at(10) - 3.0);
         }},
        // The tool waits 650 ms after each power change. A board whose output takes seconds
        // to settle is read before it gets there: the anchor after the big step from 10 to
        // 35 reads far below the settled board, the small steps at the top catch up.
        {{"--board", "typical", "--set", "settle_ms=3000"},
         [&](const BoardRun& run, const std::map<int, double>&) {
             EXPECT_LT(mv_cell(run, "5_8", 35), mv_cell(typical, "5_8", 35) - 60.0);
             EXPECT_NEAR(mv_cell(run, "5_8", 60), mv_cell(typical, "5_8", 60), 60.0);
         }},
    };
    for (const auto& c : cases) {
        const BoardRun run = calibrate(c.board, fast_5805);
        ASSERT_EQ(run.result.exit_status, 0) << c.board[1] << run.result.err;
        const auto dbm = reported_dbm(run.result.out);
        ASSERT_EQ(dbm.size(), 6u) << c.board[1] << run.result.out;
        c.check(run, dbm);
    }
}

TEST_F(CalibrationEndToEnd, FirstReadingAfterAPowerChangeIsDiscarded) {
    // On a board that settles in about the tool's wait, the first reading of a level still
    // sees the rise; the level's cell is the mean of the other three.
    const BoardRun run = calibrate({"--board", "typical", "--set", "settle_ms=400"},
                                   {"-fast-calibrate", "-f", "5805", "-m", "0"});
    ASSERT_EQ(run.result.exit_status, 0) << run.result.err;
    std::map<int, std::vector<double>> readings;
    int level = 0;
    for (const std::string& line : split(run.result.out)) {
        int n = 0;
        double mv = 0.0;
        if (std::sscanf(line.c_str(), "Calibrating power level %d", &n) == 1)
            level = n;
        else if (std::sscanf(line.c_str(), "Reading %d complete: %lf mV", &n, &mv) == 2)
            readings[level].push_back(mv);
    }
    for (int anchor : kAnchors) {
        const std::vector<double>& r = readings[anchor];
        ASSERT_EQ(r.size(), 4u) << anchor;
        const double kept = (r[1] + r[2] + r[3]) / 3.0;
        const double all = (r[0] + r[1] + r[2] + r[3]) / 4.0;
        EXPECT_NEAR(mv_cell(run, "5_8", anchor), kept, 0.011) << "anchor " << anchor;
        if (anchor == 35) {
            EXPECT_GT(kept - all, 1.0) << "the board must show its settling";
        }
    }
}

// What the MP script should have been sent for one combination.
void expect_mp_levels(Rows* expected, int frequency, int mcs, const std::vector<int>& levels) {
    expected->insert(expected->end(),
                     {"freq " + std::to_string(frequency), "mcs " + std::to_string(mcs),
                      "freq " + std::to_string(frequency)});
    for (int level : levels)
        expected->insert(expected->end(), {"power " + std::to_string(level), "resume", "pause"});
    expected->insert(expected->end(), {"power 1", "pause"});
}

TEST_F(CalibrationEndToEnd, MpScriptCarriesTheWholeRun) {
    const orca_test::BoardRun run =
        calibrate({}, {"-fast-calibrate", "-mp", "-f", "2412", "-f", "2437", "-m", "0"});
    ASSERT_EQ(run.result.exit_status, 0) << run.result.err;
    EXPECT_EQ(run.result.err,
              "Warning: Fast calibration is not supported for 2437 MHz MCS 0; using full "
              "calibration instead.\n");
    EXPECT_TRUE(contains(run.result.out,
                         "Transmit source: Realtek MP (rtw_mp_test.sh)\n"
                         "Will perform calibration for the following combinations:\n"
                         "Frequency: 2412 MHz, MCS: 0 (fast)\n"
                         "Frequency: 2437 MHz, MCS: 0 (full)\n"
                         "Starting Realtek MP session: /usr/bin/rtw_mp_test.sh tx paused=1 "
                         "freq=2412 mcs=0 pwr=1 pktlen=7800 pktint=1\n"));
    EXPECT_TRUE(contains(run.result.out, "Starting full calibration for Frequency: 2437 MHz"));
    Rows expected{"start tx paused=1 freq=2412 mcs=0 pwr=1 pktlen=7800 pktint=1 NO_COLOR=1"};
    expect_mp_levels(&expected, 2412, 0, kAnchors);
    expect_mp_levels(&expected, 2437, 0, levels_up_to(60));
    expected.push_back("quit");
    EXPECT_EQ(run.lines("mp.log"), expected);
    EXPECT_EQ(run.lines("commands.log"), Rows{}) << "the service is not involved";
    // No settling waits with the MP script, only the levels (and the script's exit).
    EXPECT_GE(run.wait_seconds, 66 * kLevelSeconds - 1e-6);
    EXPECT_LT(run.wait_seconds, 66 * kLevelSeconds + 1.0);
    EXPECT_EQ(split(run.file(calibration_path("2_4"))).size(), 64u);
}

TEST_F(CalibrationEndToEnd, StatusPipeThatCannotBeOpenedEndsEveryRunButAnMpOne) {
    // A board that refuses every new thread: the pipe client cannot start its reader.
    const std::string tool = std::string("exec ") + ORCA_MONITOR_BINARY + " -d 1 ";
    const struct {
        std::string options;
        int status;
    } cases[] = {
        {"-calibrate -f 5180 -m 0", 1},
        {"-fast-calibrate -f 5180 -m 0", 1},
        {"-adjust-dbm 20", 1},
        {"-fast-calibrate -mp -f 5180 -m 0", 0},  // the MP script needs no status pipe
    };
    for (const auto& c : cases) {
        const orca_test::BoardRun run = orca_test::run_on_board(
            {"--no-publisher", "--set", "threads=refused"}, {"sh", "-c", tool + c.options},
            dir_.path() + "/board" + std::to_string(++runs_));
        EXPECT_EQ(run.result.exit_status, c.status) << c.options << run.result.err;
        if (c.status != 0) {
            EXPECT_EQ(run.result.out, "") << c.options;
            EXPECT_TRUE(contains(run.result.err, "Failed to initialize VTX pipe\n")) << c.options;
            EXPECT_EQ(run.lines("commands.log"), Rows{}) << c.options;
        } else {
            EXPECT_TRUE(contains(run.result.out, "All calibrations completed!\n"));
        }
    }
}

TEST_F(CalibrationEndToEnd, MpScriptThatDoesNotStartEndsTheTool) {
    for (const char* mode : {"fail", "error", "eof", "missing"}) {
        const orca_test::BoardRun run = calibrate({"--set", std::string("mp_start=") + mode},
                                                  {"-calibrate", "-mp", "-f", "5180", "-m", "0"});
        EXPECT_EQ(run.result.exit_status, 1) << mode;
        EXPECT_TRUE(contains(run.result.err,
                             "Error: the MP session did not start (see the [mp] lines above; the "
                             "radio driver must be the MP build)\n"))
            << mode << ": " << run.result.err;
        EXPECT_FALSE(contains(run.result.out, "Starting full calibration")) << mode;
    }
}

TEST_F(CalibrationEndToEnd, MpScriptMisbehaving) {
    // A setting the script never answers costs 20 s, then the combination is given up.
    orca_test::BoardRun run =
        calibrate({"--set", "mp_stall=freq"}, {"-calibrate", "-mp", "-f", "5180", "-m", "0"});
    EXPECT_EQ(run.result.exit_status, 0);
    EXPECT_EQ(run.result.err,
              "[mp] no answer to 'freq 5180'\n"
              "Calibration failed for Frequency: 5180 MHz, MCS: 0 (MP rejected the setting)\n");
    EXPECT_GE(run.wait_seconds, 19.99);
    EXPECT_LT(run.wait_seconds, 21.0);

    // A script that stays after quit is drained for 10 s, waited for 10 s, then terminated.
    run = calibrate({"--set", "mp_quit=ignore", "--set", "mp_refuse=freq"},
                    {"-calibrate", "-mp", "-f", "5180", "-m", "0"});
    EXPECT_EQ(run.result.exit_status, 0);
    EXPECT_EQ(run.lines("mp.log").back(), "terminated");
    EXPECT_GE(run.wait_seconds, 19.99);
    EXPECT_TRUE(contains(run.result.out, "All calibrations completed!\n"));

    // Ctrl-C in the middle of a run ends the tool and the script at once.
    run =
        calibrate({"--set", "mp_interrupt=resume"}, {"-calibrate", "-mp", "-f", "5180", "-m", "0"});
    EXPECT_EQ(run.result.exit_status, 130);
    EXPECT_EQ(run.lines("mp.log").back(), "terminated");
    EXPECT_FALSE(contains(run.result.out, "All calibrations completed!"));
}

}  // namespace
