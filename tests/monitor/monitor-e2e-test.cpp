// The monitor as an operator runs it: the built tool on a fresh simulated board, ended by a
// signal once it has shown enough, its output compared line by line.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <regex>

#include "board_run.h"

namespace {

using Enough = std::function<bool(const std::string& out, const std::string& err)>;
using orca_test::lines_of;

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

struct MonitorRun {
    std::vector<std::string> out;  // without the pipe client's connect line
    std::vector<std::string> err;
    std::vector<std::string> commands;  // what reached the simulated service
    int exit_status = -1;
    double virtual_seconds = 0;
};

// `orca-vtx-i2c-monitor -d 1 args...` on a board set up with `board` (orca-board-sim
// options), until `enough` holds for what it printed; then `signal` ends it. A `launcher`
// (such as a shell that sets up the tool's descriptors) is put before the tool's own words.
MonitorRun run_monitor(const std::vector<std::string>& board, const std::vector<std::string>& args,
                       const Enough& enough, int signal = SIGTERM,
                       const std::vector<std::string>& launcher = {}) {
    orca_test::TempDir tmp;
    const std::string root = tmp.path() + "/board";
    std::vector<std::string> command = launcher;
    for (const char* word : {ORCA_MONITOR_BINARY, "-d", "1"})
        command.push_back(word);
    command.insert(command.end(), args.begin(), args.end());
    orca_test::ProcessOptions options;
    options.stop_when = [&](const orca_test::ProcessResult& r) { return enough(r.out, r.err); };
    options.stop_signal = signal;
    const orca_test::BoardRun board_run = orca_test::run_on_board(board, command, root, options);
    const orca_test::ProcessResult& result = board_run.result;

    // Nothing of this board may outlive it: no tool, shell or publisher.
    for (const auto& process : std::filesystem::directory_iterator("/proc")) {
        const std::string seen = orca_test::read_file(process.path() / "cmdline") +
                                 orca_test::read_file(process.path() / "environ");
        EXPECT_EQ(seen.find(root), std::string::npos) << process.path() << " left behind";
    }
    // Each line leaves whole as printed, even when the output is a pipe.
    EXPECT_TRUE(result.out.empty() || result.out.back() == '\n') << result.out.substr(0, 200);
    MonitorRun run;
    EXPECT_LE(count(result.out, "Connected to VTX Latency pipe\n"), 1u);
    for (const std::string& line : lines_of(result.out))
        if (line != "Connected to VTX Latency pipe")
            run.out.push_back(line);
    run.err = lines_of(result.err);
    run.commands = board_run.lines("commands.log");
    run.exit_status = result.exit_status;
    run.virtual_seconds = board_run.wait_seconds;
    return run;
}

std::string reading(const std::string& ch0, const std::string& label, const std::string& ch1,
                    const std::string& frequency = "5800", const std::string& temperature = "25.00",
                    const std::string& mcs_and_power = "MCS: 0   Power: 1") {
    return "2.4 GHz (CH0): " + ch0 + "   " + label + " GHz (CH1): " + ch1 +
           "   Temperature (C): " + temperature + "   Freq: " + frequency + " MHz   " +
           mcs_and_power;
}

TEST(Monitor, ShowsTheDefaultRadioStateUntilTheServicePublishes) {
    // No service: whatever the radio does, the lines say 5800 MHz, MCS 0, power 1 and
    // convert with the 5.8 table. A user's Ctrl-C ends it.
    const auto run = run_monitor(
        {"--no-publisher", "--set", "frequency_mhz=5180", "--set", "mcs=3", "--set",
         "power_index=4", "--set", "temperature_c=31.5", "--set", "power_curve_dbm=1,2,3,4.25"},
        {}, [](auto& out, auto&) { return count(out, "\n") >= 3; }, SIGINT);
    EXPECT_EQ(run.exit_status, 128 + SIGINT);
    EXPECT_TRUE(run.err.empty());
    ASSERT_GE(run.out.size(), 3u);
    for (const std::string& line : run.out)
        EXPECT_EQ(line,
                  reading("-99.00 dBm (44.82 mV)", "5.8", "4.25 dBm (199.95 mV)", "5800", "31.50"));
}

TEST(Monitor, BandLabelFollowsThePipeFrequencyWithItsOwnBoundary) {
    // 5500-5599 MHz is labelled 5.8 but converted with the 5.1 table: 7.20 dBm at this
    // voltage, where the 5.8 table of the lines before the first record says 7.50.
    for (const auto& [frequency, label] :
         {std::pair{"5499", "5.1"}, {"5500", "5.8"}, {"5599", "5.8"}}) {
        const std::string published =
            reading("12.10 dBm (44.82 mV)", label, "7.20 dBm (385.40 mV)", frequency);
        const auto run = run_monitor({"--set", std::string("frequency_mhz=") + frequency}, {},
                                     [&](auto& out, auto&) { return count(out, published) >= 3; });
        size_t first = 0;
        while (first < run.out.size() && run.out[first] != published)
            EXPECT_EQ(run.out[first++],
                      reading("12.10 dBm (44.82 mV)", "5.8", "7.50 dBm (385.40 mV)"));
        ASSERT_LT(first, run.out.size()) << frequency;
        for (size_t i = first; i < run.out.size(); ++i)
            EXPECT_EQ(run.out[i], published);
    }
}

TEST(Monitor, FailedReadIsRetriedEveryFiveSecondsAndPrintsOnlyItsError) {
    const auto run = run_monitor({"--fault", "write:0x1d:1:0"}, {}, [](auto&, auto& err) {
        return count(err, "Error processing sensor data") >= 5;
    });
    EXPECT_EQ(run.exit_status, 128 + SIGTERM);
    for (const std::string& line : run.out)
        EXPECT_EQ(line, "Failed to reset device, retrying in 5 seconds...");
    for (size_t i = 0; i < run.err.size(); ++i)
        EXPECT_EQ(run.err[i], i % 2 ? "Error processing sensor data"
                                    : "Failed to write to the i2c bus: Input/output error");
    const double failures = static_cast<double>(run.err.size() / 2);
    ASSERT_GE(failures, 5);
    EXPECT_GE(run.virtual_seconds, 5 * (failures - 1));  // ended during a wait or just before
    EXPECT_LE(run.virtual_seconds, 5 * failures);
}

// Power index i reads as i × 0.5 dBm.
std::string half_db_steps() {
    std::string text = "power_curve_dbm=";
    for (int i = 1; i <= 60; ++i)
        text += (i > 1 ? "," : "") + std::to_string(i * 0.5);
    return text;
}

bool search_done(const std::string& out, const std::string&) {
    const size_t end = out.find("Optimal power level found");
    return end != std::string::npos && count(out.substr(end), "2.4 GHz (CH0)") >= 2;
}

TEST(Monitor, AdjustmentSearchesOnceFromPowerOne) {
    // 100 mW is 20 dBm: the same search.
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"-adjust-mW", "100"}, {"-adjust-dbm", "20"}}) {
        const auto run = run_monitor({"--set", half_db_steps()}, args, search_done);
        std::vector<std::string> commands;
        for (int index : {1, 30, 45, 37, 41, 39, 40, 40})
            commands.push_back("orca-configure-vtx -p " + std::to_string(index));
        EXPECT_EQ(run.commands, commands) << args[0];
        std::string out;
        for (const std::string& line : run.out)
            out += line + "\n";
        EXPECT_EQ(out.rfind("Setting initial power to 1...\n2.4 GHz (CH0): ", 0), 0u) << out;
        EXPECT_NE(out.find("to achieve 20.00 dBm at 5.8 GHz...\n"), std::string::npos) << out;
        EXPECT_EQ(count(out, "Searching for optimal power level"), 1u);
    }
}

TEST(Monitor, AdjustmentAndLinesFollowTheBandAndMcsThatTheServicePublishes) {
    // The first five reads fail; their retry waits, at 3 % of real time, let the service's
    // first record (5180 MHz, MCS 3) arrive before the first line and the search.
    const auto run = run_monitor({"--set", "frequency_mhz=5180", "--set", "mcs=3", "--fault",
                                  "write:0x1d:1:5", "--time-scale", "0.03"},
                                 {"-adjust-dbm", "20"}, search_done);
    size_t search = 0;
    while (search < run.out.size() && run.out[search].rfind("Searching for", 0) != 0)
        ++search;
    ASSERT_LT(search, run.out.size());
    ASSERT_GE(search, 2u);
    const std::string& before = run.out[search - 1];
    ASSERT_NE(before.find("Freq: 5180 MHz"), std::string::npos)
        << "the service's first record came too late: " << before;
    // Converted with the MCS 3 column; the MCS 0 one reads 7.00 dBm at this voltage.
    EXPECT_EQ(before, reading("11.62 dBm (44.82 mV)", "5.1", "9.00 dBm (378.37 mV)", "5180",
                              "25.00", "MCS: 3   Power: 1"));
    EXPECT_EQ(run.out[search],
              "Searching for optimal power level (range: 1-60) to achieve 20.00 dBm at 5.1 GHz...");
    EXPECT_EQ(run.out.back(), reading("11.62 dBm (44.82 mV)", "5.1", "19.86 dBm (645.56 mV)",
                                      "5180", "25.00", "MCS: 3   Power: 22"));
}

// A configure command ended by the operator's Ctrl-C. As a terminal does, it sends SIGINT to
// the whole foreground job: the tool, the tool's shell and itself.
const char* const kInterruptedConfigure = "#!/bin/sh\nkill -INT 0\nexec cat\n";

TEST(Monitor, CtrlCDuringAServiceCommandEndsTheToolAtOnce) {
    const struct {
        std::vector<std::string> args;
        std::string last_line;  // printed just before the configure command
    } kRuns[] = {
        {{"-adjust-dbm", "20"}, "Setting initial power to 1..."},
        {{"-calibrate", "-f", "5180", "-m", "0"}, "Setting frequency to 5180 MHz..."},
    };
    for (const auto& run : kRuns) {
        SCOPED_TRACE(run.args[0]);
        orca_test::TempDir bin;
        bin.write_file("orca-configure-vtx", kInterruptedConfigure, true);
        // The tool leads a process group of its own, as a job of an interactive shell does.
        const std::vector<std::string> launcher = {"sh", "-c", "PATH=$0:$PATH exec setsid \"$@\"",
                                                   bin.path()};
        const auto result = run_monitor(
            {"--no-publisher"}, run.args,
            [&](auto& out, auto&) {  // the tool carried on after the command
                const size_t at = out.find(run.last_line + "\n");
                return at != std::string::npos && at + run.last_line.size() + 1 < out.size();
            },
            SIGTERM, launcher);
        EXPECT_EQ(result.exit_status, 128 + SIGINT);
        ASSERT_FALSE(result.out.empty());
        EXPECT_EQ(result.out.back(), run.last_line);
        EXPECT_TRUE(result.err.empty());
    }
}

TEST(Monitor, StatusPipeStaysConnectedWhileTheBusIsGone) {
    // The first select of the converter fails and closes the bus; every retry then fails on
    // the closed descriptor. The service comes up only after that. Its errors reach the
    // test through the script, whose first line it passes on before starting the publisher.
    const std::string script = std::string(R"(errors="$ORCA_SIM_ROOT/errors"
mkfifo "$errors" || exit 1
(
    exec <"$errors"
    IFS= read -r line
    printf '%s\n' "$line" >&2
    ORCA_SIM_REAL_TIME=1 ")") + SIM_PUBLISHER +
                               R"(" --state "$ORCA_SIM_ROOT/board-state" &
    publisher=$!
    cat >&2
    kill $publisher
) &
exec "$@" 2>"$errors")";
    const std::string failure = "Error processing sensor data\n";
    size_t failures_when_connected = 0;
    const auto run = run_monitor(
        {"--no-publisher", "--fault", "select:0x1d:1:1"}, {},
        [&](auto& out, auto& err) {
            if (failures_when_connected == 0 && out.find("Connected") != std::string::npos)
                failures_when_connected = count(err, failure) + 1;
            return failures_when_connected != 0 &&
                   count(err, failure) >= failures_when_connected + 20;
        },
        SIGTERM, {"sh", "-c", script, "sh"});
    EXPECT_EQ(run.exit_status, 128 + SIGTERM);
    EXPECT_NE(failures_when_connected, 0u) << "the pipe never connected";
    for (const std::string& line : run.out)
        EXPECT_EQ(line.find("Disconnected"), std::string::npos) << line;
    // The retries select on the closed descriptor, never on anything opened since.
    ASSERT_GE(run.err.size(), 4u);
    for (size_t i = 2; i < run.err.size(); ++i)
        EXPECT_EQ(run.err[i], i % 2 ? "Error processing sensor data"
                                    : "Failed to acquire bus access and/or talk to ADS7142: Bad "
                                      "file descriptor")
            << i;
}

TEST(Monitor, StartedWithStandardDescriptorsClosedKeepsTheBusOffThem) {
    // Started with standard input and output closed, the tool must not get the bus on
    // descriptor 0 or 1: every line it prints would go to the selected chip. The board's
    // bus trace says which descriptor each open of a bus got.
    const auto run = run_monitor(
        {"--fault", "read:0x1d:1:0"}, {},
        [](auto&, auto& err) { return count(err, "Error processing sensor data") >= 2; }, SIGTERM,
        {"sh", "-c", "exec 0<&- 1>&-; ORCA_SIM_TRACE=bus exec \"$@\"", "sh"});
    EXPECT_EQ(run.exit_status, 128 + SIGTERM);
    EXPECT_TRUE(run.out.empty());
    const std::regex bus_open(R"(bus: open /dev/i2c-1: fd (\d+))");
    int opens = 0;
    for (const std::string& line : run.err) {
        std::smatch match;
        if (std::regex_search(line, match, bus_open)) {
            ++opens;
            EXPECT_GT(std::stoi(match[1]), 2) << line;
        }
    }
    EXPECT_EQ(opens, 2) << "the presence test's and the tool's own";
}

}  // namespace
