// The console form: one line per band and MCS, then the overall verdict.
#include <fmt/core.h>

#include "report.h"

using namespace orca_verdict;

namespace {

std::string verdict_word(Severity severity, bool colour) {
    const char* word = severity_name(severity);
    if (!colour)
        return word;
    const char* code = severity == Severity::pass ? "32" : severity == Severity::warn ? "33" : "31";
    return fmt::format("\033[1;{}m{}\033[0m", code, word);
}

}  // namespace

std::string format_report_text(const Verdict& verdict, bool colour) {
    std::string text;
    int counts[3] = {0, 0, 0};
    for (const ColumnVerdict& column : verdict.columns) {
        ++counts[static_cast<int>(column.verdict)];
        std::string findings;
        for (const Finding& finding : column.findings)
            findings += (findings.empty() ? "" : ", ") + finding.code;
        text += fmt::format("{} GHz MCS {}: {}  max {} dBm  knee {}  legal {}  findings: {}\n",
                            band_name(column.band), column.column.mcs,
                            verdict_word(column.verdict, colour),
                            column.has_max ? fmt::format("{:.2f}", column.max_dbm) : "-",
                            column.knee_index > 0 ? std::to_string(column.knee_index) : "-",
                            !column.has_limit            ? "-"
                            : column.max_legal_index > 0 ? std::to_string(column.max_legal_index)
                                                         : "none",
                            findings.empty() ? "none" : findings);
    }
    text += fmt::format("Overall: {} ({} columns: {} pass, {} warn, {} fail)\n",
                        verdict_word(verdict.verdict, colour), verdict.columns.size(), counts[0],
                        counts[1], counts[2]);
    return text;
}
