// The report reads calibration files from disk, damaged or not. Reading, judging and every
// rendering of whatever they hold must neither crash nor report a value the file lacks.
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <orca-vtx/calibration-verdict.h>
#include "report.h"

using namespace orca_verdict;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const Band band = static_cast<Band>(size % 3);
    std::vector<CalibrationFile> files(1);
    std::string error;
    if (parse_calibration_text(text, band, files[0], error) != 0) {
        if (error.empty())
            __builtin_trap();
        return 0;
    }
    Verdict verdict;
    if (judge_calibration(files, {Region::fcc, 7.0, 1.0}, &files, verdict) != 0)
        __builtin_trap();
    Severity worst = Severity::pass;
    for (const ColumnVerdict& column : verdict.columns) {
        worst = std::max(worst, column.verdict);
        const bool top_known = column.column.levels[kJudgedLevels].has_value;
        if (column.knee_index > kJudgedLevels || (column.knee_index > 0) != top_known)
            __builtin_trap();
        if (column.max_legal_index > kJudgedLevels || !column.has_limit)
            __builtin_trap();
        for (int level = 1; level <= kFileLevels; ++level) {
            const LevelCells& cells = column.column.levels[level];
            if (cells.has_value && !(cells.mw > 0.0 && std::isfinite(cells.mw) && cells.mv >= 0.0))
                __builtin_trap();
        }
        for (const Finding& finding : column.findings)
            if (finding.code == "changed")  // compared with itself
                __builtin_trap();
    }
    if (worst != verdict.verdict)
        __builtin_trap();
    if (format_report_json(verdict).empty() || format_report_text(verdict, true).empty() ||
        format_report_html(verdict, "<dir>").empty())
        __builtin_trap();
    return 0;
}
