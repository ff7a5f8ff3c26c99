// orca-vtx-calreport: reads the calibration files, judges them with liborca-vtx's checks,
// and reports on the console and, on request, as JSON and HTML.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "report.h"

using namespace orca_verdict;

namespace {

constexpr int kExitFail = 1;
constexpr int kExitUnusable = 2;

int unusable(const std::string& message) {
    fprintf(stderr, "Error: %s\n", message.c_str());
    return kExitUnusable;
}

// Reads the files of a folder; at least one must be there.
int read_folder(const std::string& dir, std::vector<CalibrationFile>& files, std::string& error) {
    const int count = read_calibration_dir(dir, files, error);
    if (count == 0)
        error = "no calibration file in " + dir;
    return count > 0 ? 0 : -1;
}

}  // namespace

int run_calreport(int argc, char* argv[]) {
    ReportOptions options;
    if (parse_report_options(argc, argv, &options) != 0) {
        fputs(report_usage(), stderr);
        return kExitUnusable;
    }
    if (options.help) {
        fputs(report_usage(), stdout);
        return 0;
    }

    std::string error;
    std::vector<CalibrationFile> files;
    if (read_folder(options.dir, files, error) != 0)
        return unusable(error);

    std::vector<CalibrationFile> previous;
    if (!options.previous.empty()) {
        std::string folder = options.previous;
        if (folder == "latest" && latest_snapshot(options.dir, folder, error) != 0)
            return unusable(error);
        if (read_folder(folder, previous, error) != 0)
            return unusable("previous calibration: " + error);
    }

    Verdict verdict;
    if (judge_calibration(files, options.verdict, options.previous.empty() ? nullptr : &previous,
                          verdict) != 0)
        return unusable("the antenna gain and cable loss must be finite, the loss 0 or more");

    const char* no_colour = getenv("NO_COLOR");
    const bool colour = isatty(STDOUT_FILENO) && no_colour == nullptr;
    fputs(format_report_text(verdict, colour).c_str(), stdout);
    fflush(stdout);

    if (!options.json_path.empty()) {
        const std::string json = format_report_json(verdict);
        if (json.empty())
            return unusable("out of memory for the JSON report");
        if (write_text_file(options.json_path, json, error) != 0)
            return unusable(error);
    }
    if (!options.html_path.empty() &&
        write_text_file(options.html_path, format_report_html(verdict, options.dir), error) != 0)
        return unusable(error);

    if (options.accept) {
        std::string snapshot;
        if (accept_calibration(options.dir, snapshot, error) != 0)
            return unusable(error);
        printf("Accepted calibration stored in %s\n", snapshot.c_str());
        return 0;
    }
    return verdict.verdict == Severity::fail ? kExitFail : 0;
}
