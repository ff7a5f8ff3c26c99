#include "board_run.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace orca_test {

double BoardRun::report_number(const std::string& key) const {
    const auto found = report.find(key);
    return found == report.end() ? 0.0 : std::strtod(found->second.c_str(), nullptr);
}

std::string BoardRun::file(const std::string& path) const {
    if (root.empty())
        return "";
    return read_file(root + (path.rfind('/', 0) == 0 ? "" : "/") + path);
}

std::vector<std::string> BoardRun::lines(const std::string& path) const {
    return lines_of(file(path));
}

BoardRun run_on_board(const std::vector<std::string>& board,
                      const std::vector<std::string>& command, const std::string& root,
                      const ProcessOptions& options,
                      unsigned long long expected_unexpected_frames) {
    TempDir dir;
    const std::string report_path = dir.path() + "/report";
    BoardRun run;
    run.root = root;
    std::vector<std::string> argv{ORCA_BOARD_SIM};
    if (!root.empty())
        argv.insert(argv.end(), {"--root", root});
    argv.insert(argv.end(), {"--report", report_path});
    argv.insert(argv.end(), board.begin(), board.end());
    argv.push_back("--");
    argv.insert(argv.end(), command.begin(), command.end());
    run.result = run_process(argv, options);

    run.report_text = read_file(report_path);
    for (const std::string& line : lines_of(run.report_text)) {
        const size_t equals = line.find('=');
        if (equals != std::string::npos)
            run.report[line.substr(0, equals)] = line.substr(equals + 1);
    }
    if (run.report.empty()) {
        EXPECT_EQ(run.result.exit_status, 2) << "the board ran, but left no report";
        return run;
    }
    if (run.report.count("wait_ns") != 0)
        run.wait_seconds = run.report_number("wait_ns") / 1e9;
    const auto frames = run.report.find("unexpected_frames");
    EXPECT_NE(frames, run.report.end());
    if (frames != run.report.end()) {
        EXPECT_EQ(std::strtoull(frames->second.c_str(), nullptr, 10), expected_unexpected_frames)
            << "frames that no simulated device understood; ORCA_SIM_TRACE=bus shows them\n"
            << run.result.err;
    }
    return run;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    if (start < text.size())
        lines.push_back(text.substr(start));
    return lines;
}

}  // namespace orca_test
