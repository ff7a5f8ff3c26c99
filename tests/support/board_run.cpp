#include "board_run.h"

#include <cstdlib>

namespace orca_test {

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
                      const ProcessOptions& options) {
    BoardRun run;
    run.root = root;
    std::vector<std::string> argv{ORCA_BOARD_SIM};
    if (!root.empty())
        argv.insert(argv.end(), {"--root", root, "--report", root + ".report"});
    argv.insert(argv.end(), board.begin(), board.end());
    argv.push_back("--");
    argv.insert(argv.end(), command.begin(), command.end());
    run.result = run_process(argv, options);
    if (!root.empty()) {
        const std::string report = read_file(root + ".report");
        const size_t at = report.find("wait_ns=");
        if (at != std::string::npos)
            run.wait_seconds = std::strtod(report.c_str() + at + 8, nullptr) / 1e9;
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
