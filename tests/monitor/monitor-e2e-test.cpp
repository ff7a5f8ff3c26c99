// The monitor as an operator runs it: the built tool on a fresh simulated board, ended by a
// signal once it has shown enough, its output compared line by line.
#include <dirent.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "run_process.h"

namespace {

const std::string kReadingLine = "2.4 GHz (CH0): ";

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1)
        lines.push_back(text.substr(start, end - start));
    return lines;
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// Processes that still belong to the simulated board under `root`.
std::string processes_of(const std::string& root) {
    std::string found;
    DIR* proc = opendir("/proc");
    while (dirent* entry = proc ? readdir(proc) : nullptr) {
        const std::string dir = std::string("/proc/") + entry->d_name;
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9')
            continue;
        const std::string seen =
            orca_test::read_file(dir + "/cmdline") + "\n" + orca_test::read_file(dir + "/environ");
        if (seen.find(root) != std::string::npos)
            found += entry->d_name + std::string(" ");
    }
    if (proc)
        closedir(proc);
    return found;
}

struct MonitorRun {
    std::vector<std::string> out;  // without the pipe client's connect line
    std::vector<std::string> err;
    std::vector<std::string> commands;  // what reached the simulated service
    int exit_status = -1;
    double virtual_seconds = 0;  // the waits of the run
};

// Runs `orca-vtx-i2c-monitor -d 1 args...` on a board set up with `board` (orca-board-sim
// options) until `enough` holds for its standard output and error, then sends `signal`.
MonitorRun run_monitor(const std::vector<std::string>& board, const std::vector<std::string>& args,
                       std::function<bool(const std::string&, const std::string&)> enough,
                       int signal = SIGTERM) {
    orca_test::TempDir tmp;
    const std::string root = tmp.path() + "/board";
    std::vector<std::string> argv = {ORCA_BOARD_SIM, "--root", root, "--report",
                                     tmp.path() + "/report"};
    argv.insert(argv.end(), board.begin(), board.end());
    argv.insert(argv.end(), {"--", ORCA_MONITOR_BINARY, "-d", "1"});
    argv.insert(argv.end(), args.begin(), args.end());
    orca_test::ProcessOptions options;
    options.stop_when = [&](const orca_test::ProcessResult& r) { return enough(r.out, r.err); };
    options.stop_signal = signal;
    const orca_test::ProcessResult result = orca_test::run_process(argv, options);
    EXPECT_EQ(processes_of(root), "") << "left behind on the board";

    MonitorRun run;
    EXPECT_LE(count(result.out, "Connected to VTX Latency pipe\n"), 1u);
    for (const std::string& line : lines_of(result.out))
        if (line != "Connected to VTX Latency pipe")
            run.out.push_back(line);
    run.err = lines_of(result.err);
    run.commands = lines_of(orca_test::read_file(root + "/commands.log"));
    run.exit_status = result.exit_status;
    const std::string report = orca_test::read_file(tmp.path() + "/report");
    run.virtual_seconds = std::atof(report.c_str() + report.find("wait_ns=") + 8) / 1e9;
    return run;
}

std::function<bool(const std::string&, const std::string&)> readings(size_t n) {
    return
        [n](const std::string& out, const std::string&) { return count(out, kReadingLine) >= n; };
}

std::string reading_line(const std::string& ch0, const std::string& label, const std::string& ch1,
                         const std::string& rest) {
    return kReadingLine + ch0 + "   " + label + " GHz (CH1): " + ch1 + "   " + rest;
}

TEST(Monitor, ShowsTheDefaultRadioStateUntilTheServicePublishes) {
    // The service is not running: whatever the radio does, the line says 5800 MHz, MCS 0,
    // power 1 and converts channel 1 with the 5.8 table. Ctrl-C ends it.
    const auto run = run_monitor({"--no-publisher", "--set", "frequency_mhz=5180", "--set", "mcs=3",
                                  "--set", "power_index=20", "--set", "temperature_c=31.5", "--set",
                                  "power_curve_dbm=0.5,1,1.5,2,2.5,3,3.5,4,4.5,5,5.5,6,6.5,7,7.5,8,"
                                  "8.5,9,9.5,10"},
                                 {}, readings(3), SIGINT);
    EXPECT_EQ(run.exit_status, 128 + SIGINT);
    EXPECT_TRUE(run.err.empty());
    ASSERT_GE(run.out.size(), 3u);
    for (const std::string& line : run.out)
        EXPECT_EQ(line,
                  reading_line("-99.00 dBm (44.82 mV)", "5.8", "10.00 dBm (599.85 mV)",
                               "Temperature (C): 31.50   Freq: 5800 MHz   MCS: 0   Power: 1"));
}

TEST(Monitor, BandLabelFollowsThePipeFrequencyWithItsOwnBoundary) {
    // 5500-5599 MHz is labelled 5.8 but converted with the 5.1 table (7.20 dBm at this
    // voltage, where the 5.8 table of the lines before the first record says 7.50).
    for (const auto& [frequency, label] :
         {std::pair{"5499", "5.1"}, {"5500", "5.8"}, {"5599", "5.8"}}) {
        const std::string published =
            reading_line("12.10 dBm (44.82 mV)", label, "7.20 dBm (385.40 mV)",
                         "Temperature (C): 25.00   Freq: " + std::string(frequency) +
                             " MHz   MCS: 0   Power: 1");
        const auto run = run_monitor(
            {"--set", std::string("frequency_mhz=") + frequency}, {},
            [&](const std::string& out, const std::string&) { return count(out, published) >= 3; });
        size_t first = 0;
        while (first < run.out.size() && run.out[first] != published)
            EXPECT_EQ(run.out[first++],
                      reading_line("12.10 dBm (44.82 mV)", "5.8", "7.50 dBm (385.40 mV)",
                                   "Temperature (C): 25.00   Freq: 5800 MHz   MCS: 0   Power: 1"));
        ASSERT_LT(first, run.out.size()) << frequency;
        for (size_t i = first; i < run.out.size(); ++i)
            EXPECT_EQ(run.out[i], published);
    }
}

TEST(Monitor, FailedReadIsRetriedEveryFiveSeconds) {
    const auto run = run_monitor({"--fault", "write:0x1d:1:0"}, {},
                                 [](const std::string&, const std::string& err) {
                                     return count(err, "Error processing sensor data") >= 5;
                                 });
    EXPECT_EQ(run.exit_status, 128 + SIGTERM);
    for (const std::string& line : run.out)
        EXPECT_EQ(line, "Failed to reset device, retrying in 5 seconds...");
    size_t failures = 0;
    for (size_t i = 0; i < run.err.size(); ++i) {
        EXPECT_EQ(run.err[i], i % 2 ? "Error processing sensor data"
                                    : "Failed to write to the i2c bus: Input/output error");
        failures += i % 2;
    }
    ASSERT_GE(failures, 5u);
    // Killed during a wait, or just before it.
    EXPECT_GE(run.virtual_seconds, 5.0 * (failures - 1));
    EXPECT_LE(run.virtual_seconds, 5.0 * failures);
}

// Power index i reads as i × step dBm, but as `zero` dBm at index `zero_at`.
std::string curve(double step, int zero_at = 0) {
    std::string text = "power_curve_dbm=";
    for (int i = 1; i <= 60; ++i)
        text += (i > 1 ? "," : "") + std::to_string(i == zero_at ? 0.0 : i * step);
    return text;
}

bool search_done(const std::string& out, const std::string&) {
    const size_t end = out.find("Optimal power level found");
    return end != std::string::npos && count(out.substr(end), kReadingLine) >= 2;
}

TEST(Monitor, AdjustmentSearchesOnceFromPowerOne) {
    const struct {
        std::vector<std::string> args;
        std::string curve;
        std::vector<int> tried;  // after the initial 1; the last one is chosen and set again
        const char* shown;
    } cases[] = {
        {{"-adjust-dbm", "17.13"}, curve(0.5), {30, 45, 37, 33, 35, 35}, "to achieve 17.25 dBm"},
        {{"-adjust-dbm", "17.12"},
         curve(0.5),
         {30, 45, 37, 33, 35, 34, 34},
         "to achieve 17.00 dBm"},
        // Bisection ends on a span of two; of all indices tried, 16 and 17 tie, 16 first.
        {{"-adjust-dbm", "16.5"},
         curve(1.0),
         {30, 15, 22, 18, 16, 17, 16},
         "Binary search complete. Best power level found: 16"},
        {{"-adjust-dbm", "20"},
         curve(0.5, 30),
         {30, 1},
         "Detected 0 dBm reading at high power level 30"},
        {{"-adjust-dbm", "10"},
         curve(0.5, 20),
         {30, 15, 22, 18, 20, 21, 21},
         "Testing power level 20 -> 0.0 dBm\ndBm too low, searching higher range (21 to 21)"},
    };
    for (const auto& c : cases) {
        const auto run = run_monitor({"--set", c.curve}, c.args, search_done);
        std::string commands;
        for (int index : c.tried)
            commands += "orca-configure-vtx -p " + std::to_string(index) + "\n";
        std::string out;
        for (const std::string& line : run.out)
            out += line + "\n";
        EXPECT_EQ(run.commands, lines_of("orca-configure-vtx -p 1\n" + commands)) << c.args[1];
        EXPECT_NE(out.find(c.shown), std::string::npos) << out;
        EXPECT_EQ(count(out, "Searching for optimal power level"), 1u);
        EXPECT_NE(out.find("Optimal power level found: " + std::to_string(c.tried.back())),
                  std::string::npos);
    }
}

// What one apply-and-measure of an index shows when its three readings agree.
std::string measured(int index, const char* dbm) {
    std::string text;
    for (int n = 1; n <= 3; ++n)
        text += "Taking reading " + std::to_string(n) + " of 3...\nReading " + std::to_string(n) +
                " complete: " + dbm + "0 dBm\n";
    return text + "Using median value: " + dbm + "0 dBm\nTesting power level " +
           std::to_string(index) + " -> " + dbm + " dBm\n";
}

TEST(Monitor, AdjustInMilliwattsSearchesAsInDbm) {
    const std::string expected =
        "Setting initial power to 1...\n" +
        reading_line("-99.00 dBm (44.82 mV)", "5.8", "0.50 dBm (124.80 mV)",
                     "Temperature (C): 25.00   Freq: 5800 MHz   MCS: 0   Power: 1\n") +
        "Searching for optimal power level (range: 1-60) to achieve 20.00 dBm at 5.8 GHz...\n"
        "Starting binary search for power level...\nTarget dBm: 20.0\n" +
        measured(30, "15.0") + "New best power level found: 30 (15.0 dBm, 5.0 from target)\n" +
        "dBm too low, searching higher range (31 to 60)\n" + measured(45, "22.5") +
        "New best power level found: 45 (22.5 dBm, 2.5 from target)\n" +
        "dBm too high, searching lower range (31 to 44)\n" + measured(37, "18.5") +
        "New best power level found: 37 (18.5 dBm, 1.5 from target)\n" +
        "dBm too low, searching higher range (38 to 44)\n" + measured(41, "20.5") +
        "New best power level found: 41 (20.5 dBm, 0.5 from target)\n" +
        "dBm too high, searching lower range (38 to 40)\n" + measured(39, "19.5") +
        "dBm too low, searching higher range (40 to 40)\n" + measured(40, "20.0") +
        "New best power level found: 40 (20.0 dBm, 0.0 from target)\n" +
        "Found power level within tolerance!\nOptimal power level found: 40\n";
    const std::vector<std::string> want = lines_of(expected);
    for (const char* option : {"-adjust-dbm 20", "-adjust-mW 100"}) {
        const std::string flag(option, std::strchr(option, ' '));
        const auto run =
            run_monitor({"--set", curve(0.5)}, {flag, std::strchr(option, ' ') + 1}, search_done);
        ASSERT_GT(run.out.size(), want.size()) << option;
        EXPECT_EQ(std::vector<std::string>(run.out.begin(), run.out.begin() + want.size()), want)
            << option;
        // Afterwards only lines, at the chosen power.
        for (size_t i = want.size(); i < run.out.size(); ++i)
            EXPECT_EQ(run.out[i].find(reading_line("-99.00 dBm (44.82 mV)", "5.8",
                                                   "20.00 dBm (1099.95 mV)", "")),
                      0u);
        EXPECT_EQ(run.commands, lines_of("orca-configure-vtx -p 1\norca-configure-vtx -p 30\n"
                                         "orca-configure-vtx -p 45\norca-configure-vtx -p 37\n"
                                         "orca-configure-vtx -p 41\norca-configure-vtx -p 39\n"
                                         "orca-configure-vtx -p 40\norca-configure-vtx -p 40\n"));
    }
}

}  // namespace
