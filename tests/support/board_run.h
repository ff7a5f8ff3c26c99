// Runs a command on a fresh simulated board through orca-board-sim, as the end-to-end tests
// do, and reads the run's report. The calling test fails when the board saw frames that no
// simulated device understood, unless it expected exactly that many.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "run_process.h"

namespace orca_test {

struct BoardRunResult {
    ProcessResult result;
    // The report's key=value lines (wait_ns, bus_ns, unexpected_frames, ...); empty when
    // orca-board-sim refused its options (exit status 2) before running anything.
    std::map<std::string, std::string> report;
    double report_number(const std::string& key) const;  // 0 when the key is missing
};

// `board_sim` is the orca-board-sim program, `board` its options (without --report, which
// this adds), `command` what runs on the board.
BoardRunResult run_on_board(const std::string& board_sim, const std::vector<std::string>& board,
                            const std::vector<std::string>& command,
                            const ProcessOptions& options = {},
                            unsigned long long expected_unexpected_frames = 0);

}  // namespace orca_test
