// The report of three full band files with 10 MCS columns each: reading the texts, judging
// every column against its default curve, a previous calibration and a region, and all
// three renderings. The command must stay well under 50 ms for it.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <orca-vtx/calibration-verdict.h>
#include "report.h"

using namespace orca_verdict;

namespace {

// A full file: levels 1 to 63, MCS 0 to 9, values shaped like the default curve.
std::string full_file(Band band, double offset_db) {
    std::string text = "Power_Level";
    for (int mcs = 0; mcs < 10; ++mcs)
        text += ",MCS" + std::to_string(mcs) + "_mV,MCS" + std::to_string(mcs) + "_mW";
    text += "\n";
    CalibrationColumn curves[10];
    for (int mcs = 0; mcs < 10; ++mcs)
        default_curve(band, mcs, curves[mcs]);
    for (int level = 1; level <= kFileLevels; ++level) {
        text += std::to_string(level);
        for (int mcs = 0; mcs < 10; ++mcs) {
            const LevelCells& cells = curves[mcs].levels[level];
            char pair[64];
            if (cells.has_value)
                snprintf(pair, sizeof pair, ",%.2f,%.2f", cells.mv + mcs,
                         cells.mw * std::pow(10.0, (offset_db - 0.1 * mcs) / 10.0));
            else
                snprintf(pair, sizeof pair, ",-1,-1");
            text += pair;
        }
        text += "\n";
    }
    return text;
}

void BM_ReportOfThreeFullFiles(benchmark::State& state) {
    const Band bands[3] = {Band::b2_4, Band::b5_1, Band::b5_8};
    std::vector<std::string> texts;
    std::vector<std::string> previous_texts;
    for (Band band : bands) {
        texts.push_back(full_file(band, 0.0));
        previous_texts.push_back(full_file(band, -0.7));
    }
    size_t bytes = 0;
    for (auto _ : state) {
        std::vector<CalibrationFile> files(3);
        std::vector<CalibrationFile> previous(3);
        std::string error;
        for (int i = 0; i < 3; ++i) {
            parse_calibration_text(texts[i], bands[i], files[i], error);
            parse_calibration_text(previous_texts[i], bands[i], previous[i], error);
        }
        Verdict verdict;
        judge_calibration(files, {Region::etsi, 2.0, 0.5}, &previous, verdict);
        const std::string text = format_report_text(verdict, false);
        const std::string json = format_report_json(verdict);
        const std::string html = format_report_html(verdict, "/data/quillon/vtx");
        bytes = text.size() + json.size() + html.size();
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["columns"] = 30;
    state.counters["output_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ReportOfThreeFullFiles)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
