// The pieces of orca-vtx-calreport: its options, the three renderings of a verdict and the
// accepted-calibration history. The checks themselves live in liborca-vtx.
#pragma once

#include <string>

#include <orca-vtx/calibration-verdict.h>

struct ReportOptions {
    std::string dir = "/data/quillon/vtx";
    orca_verdict::VerdictOptions verdict;
    std::string previous;  // empty: no comparison; "latest": the newest accepted snapshot
    bool accept = false;
    std::string json_path;
    std::string html_path;
    bool help = false;
};

// Parses the command line. Returns 0, or -1 after an "Error: ..." line on standard error.
int parse_report_options(int argc, char* argv[], ReportOptions* options);
// The usage text, as --help prints it.
const char* report_usage();

// One line per column and a summary line; verdict words in colour when `colour` is set.
std::string format_report_text(const orca_verdict::Verdict& verdict, bool colour);
// The verdict as JSON text (see the manual page for its shape); empty when out of memory.
std::string format_report_json(const orca_verdict::Verdict& verdict);
// One self-contained HTML page with an inline SVG chart per band.
std::string format_report_html(const orca_verdict::Verdict& verdict, const std::string& dir);

// Writes `text` to `path` through a temporary file and a rename. Returns 0, or -1 with
// `error` set.
int write_text_file(const std::string& path, const std::string& text, std::string& error);

// Copies the calibration files of `dir` into dir/history/<UTC time>/, whole or not at all.
// Returns 0 and sets `snapshot` to the new folder, or -1 with `error` set.
int accept_calibration(const std::string& dir, std::string& snapshot, std::string& error);
// The newest snapshot under dir/history. Returns 0 and sets `snapshot`, or -1 with `error`.
int latest_snapshot(const std::string& dir, std::string& snapshot, std::string& error);

// The whole command; returns its exit status (0 pass or warn, 1 fail, 2 unusable input).
int run_calreport(int argc, char* argv[]);
