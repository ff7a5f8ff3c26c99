// Runs a command on a fresh simulated board through orca-board-sim, as an operator runs the
// tool on the aircraft: the built tool or a system program, with the board's options
// (--set, --fault, --no-publisher). Shared by the end-to-end tests of every area.
// Every run reads the simulator's report, and the calling test fails when the board saw
// frames that no simulated device understood, unless it expected exactly that many.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "run_process.h"

namespace orca_test {

struct BoardRun {
    ProcessResult result;
    std::string root;            // the kept sandbox; empty when none was asked for
    double wait_seconds = -1.0;  // virtual time the run waited; -1 when there is no report
    // The report's key=value lines (wait_ns, bus_ns, unexpected_frames, ...); empty when
    // orca-board-sim refused its options (exit status 2) before running anything.
    std::map<std::string, std::string> report;
    std::string report_text;  // the report as orca-board-sim wrote it

    double report_number(const std::string& key) const;  // 0 when the key is missing
    // A file of the kept sandbox by its name there ("commands.log") or its fixed path on the
    // aircraft ("/data/quillon/vtx/calibrated_5_1.csv"); empty when it is not there.
    std::string file(const std::string& path) const;
    // The same file as lines, without their line ends.
    std::vector<std::string> lines(const std::string& path) const;
};

// `orca-board-sim [--root ROOT] --report FILE BOARD... -- COMMAND...` (BOARD without
// --report, which this adds). With a `root` the sandbox is made (or taken as it is) there
// and kept, so that a test can leave files in it beforehand and read them afterwards.
// Without one the simulator's own sandbox is removed.
BoardRun run_on_board(const std::vector<std::string>& board,
                      const std::vector<std::string>& command, const std::string& root = "",
                      const ProcessOptions& options = {},
                      unsigned long long expected_unexpected_frames = 0);

// The lines of a text, without their line ends; a last line without one counts too.
std::vector<std::string> lines_of(const std::string& text);

}  // namespace orca_test
