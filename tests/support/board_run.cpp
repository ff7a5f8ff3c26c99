#include "board_run.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

namespace orca_test {

double BoardRunResult::report_number(const std::string& key) const {
    const auto found = report.find(key);
    return found == report.end() ? 0.0 : std::strtod(found->second.c_str(), nullptr);
}

BoardRunResult run_on_board(const std::string& board_sim, const std::vector<std::string>& board,
                            const std::vector<std::string>& command, const ProcessOptions& options,
                            unsigned long long expected_unexpected_frames) {
    TempDir dir;
    const std::string report_path = dir.path() + "/report";
    std::vector<std::string> argv{board_sim, "--report", report_path};
    argv.insert(argv.end(), board.begin(), board.end());
    argv.push_back("--");
    argv.insert(argv.end(), command.begin(), command.end());

    BoardRunResult run;
    run.result = run_process(argv, options);
    std::istringstream lines(read_file(report_path));
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        if (equals != std::string::npos)
            run.report[line.substr(0, equals)] = line.substr(equals + 1);
    }
    if (run.report.empty()) {
        EXPECT_EQ(run.result.exit_status, 2) << "the board ran, but left no report";
        return run;
    }
    const auto frames = run.report.find("unexpected_frames");
    EXPECT_NE(frames, run.report.end());
    if (frames != run.report.end()) {
        EXPECT_EQ(std::strtoull(frames->second.c_str(), nullptr, 10), expected_unexpected_frames)
            << "frames that no simulated device understood; ORCA_SIM_TRACE=bus shows them\n"
            << run.result.err;
    }
    return run;
}

}  // namespace orca_test
