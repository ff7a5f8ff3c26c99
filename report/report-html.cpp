// The printable form: one page, no scripts and nothing fetched, so that it opens offline in
// any browser. Charts are SVG drawn here: output (dBm) against power index per band.
#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "report.h"

using namespace orca_verdict;

namespace {

constexpr int kWidth = 760;
constexpr int kHeight = 400;
constexpr int kLeft = 56;
constexpr int kRight = 150;  // room for the legend
constexpr int kTop = 16;
constexpr int kBottom = 44;
// Red (#d62728) is the limit's alone; no curve takes it.
constexpr const char* kPalette[] = {"#1f77b4", "#ff7f0e", "#2ca02c", "#9467bd", "#8c564b",
                                    "#e377c2", "#17becf", "#bcbd22", "#7f7f7f", "#393b79"};
constexpr size_t kPaletteSize = sizeof kPalette / sizeof kPalette[0];

std::string escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

struct Scale {
    double low;
    double high;
    double x(int level) const {
        return kLeft + (level - 1) * double(kWidth - kLeft - kRight) / (kJudgedLevels - 1);
    }
    double y(double dbm) const {
        return kTop + (high - dbm) * double(kHeight - kTop - kBottom) / (high - low);
    }
};

// Polylines of a column's output, broken where levels have no value.
std::string curve(const CalibrationColumn& column, const Scale& scale, const char* colour,
                  const char* css_class, const char* dash) {
    std::string svg;
    std::string points;
    auto flush = [&] {
        if (!points.empty())
            svg += fmt::format(
                "<polyline class=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"2\"{} "
                "points=\"{}\"/>\n",
                css_class, colour, dash, points);
        points.clear();
    };
    for (int level = 1; level <= kJudgedLevels; ++level) {
        const LevelCells& cells = column.levels[level];
        if (!cells.has_value) {
            flush();
            continue;
        }
        points += fmt::format("{}{:.1f},{:.1f}", points.empty() ? "" : " ", scale.x(level),
                              scale.y(level_dbm(cells)));
    }
    flush();
    return svg;
}

std::string chart(const std::vector<const ColumnVerdict*>& columns) {
    double low = 1e300;
    double high = -1e300;
    auto widen = [&](double dbm) {
        low = std::min(low, dbm);
        high = std::max(high, dbm);
    };
    for (const ColumnVerdict* column : columns) {
        for (int level = 1; level <= kJudgedLevels; ++level) {
            if (column->column.levels[level].has_value)
                widen(level_dbm(column->column.levels[level]));
            if (column->has_default && column->default_column.levels[level].has_value)
                widen(level_dbm(column->default_column.levels[level]));
        }
        if (column->has_limit)
            widen(column->limit_dbm);
    }
    if (low > high) {
        low = 0.0;
        high = 30.0;
    }
    const double step = high - low > 40 ? 10.0 : high - low > 16 ? 5.0 : 2.0;
    Scale scale{std::floor(low / step) * step - step, std::ceil(high / step) * step + step};

    std::string svg = fmt::format(
        "<svg class=\"chart\" xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
        "viewBox=\"0 0 {0} {1}\" role=\"img\">\n"
        "<rect x=\"0\" y=\"0\" width=\"{0}\" height=\"{1}\" fill=\"#ffffff\"/>\n",
        kWidth, kHeight);
    const int plot_right = kWidth - kRight;
    for (double dbm = scale.low; dbm <= scale.high + 1e-9; dbm += step)
        svg += fmt::format(
            "<line x1=\"{0}\" x2=\"{1}\" y1=\"{2:.1f}\" y2=\"{2:.1f}\" stroke=\"#dddddd\"/>"
            "<text x=\"{3}\" y=\"{4:.1f}\" font-size=\"11\" text-anchor=\"end\">{5:g}</text>\n",
            kLeft, plot_right, scale.y(dbm), kLeft - 6, scale.y(dbm) + 4, dbm);
    for (int level = 1; level <= kJudgedLevels; level += level == 1 ? 9 : 10)
        svg += fmt::format(
            "<line x1=\"{0:.1f}\" x2=\"{0:.1f}\" y1=\"{1}\" y2=\"{2}\" stroke=\"#dddddd\"/>"
            "<text x=\"{0:.1f}\" y=\"{3}\" font-size=\"11\" text-anchor=\"middle\">{4}</text>\n",
            scale.x(level), kTop, kHeight - kBottom, kHeight - kBottom + 16, level);
    svg += fmt::format(
        "<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" fill=\"none\" stroke=\"#888888\"/>\n"
        "<text x=\"{}\" y=\"{}\" font-size=\"12\" text-anchor=\"middle\">power index</text>\n"
        "<text x=\"14\" y=\"{}\" font-size=\"12\" text-anchor=\"middle\" "
        "transform=\"rotate(-90 14 {})\">output (dBm)</text>\n",
        kLeft, kTop, plot_right - kLeft, kHeight - kTop - kBottom, (kLeft + plot_right) / 2,
        kHeight - 8, (kTop + kHeight - kBottom) / 2, (kTop + kHeight - kBottom) / 2);

    std::map<int, bool> defaults_drawn;
    double limit_drawn = std::nan("");
    int legend_y = kTop + 12;
    for (size_t i = 0; i < columns.size(); ++i) {
        const ColumnVerdict& column = *columns[i];
        const char* colour = kPalette[i % kPaletteSize];
        svg += curve(column.column, scale, colour, "curve", "");
        svg += fmt::format(
            "<line x1=\"{0}\" x2=\"{1}\" y1=\"{2}\" y2=\"{2}\" stroke=\"{3}\" stroke-width=\"2\"/>"
            "<text x=\"{4}\" y=\"{5}\" font-size=\"11\">MCS {6}</text>\n",
            plot_right + 10, plot_right + 30, legend_y, colour, plot_right + 34, legend_y + 4,
            column.column.mcs);
        legend_y += 16;
        if (column.has_default && !defaults_drawn[column.default_column.mcs]) {
            defaults_drawn[column.default_column.mcs] = true;
            svg += curve(column.default_column, scale, colour, "default",
                         " stroke-dasharray=\"6 4\" opacity=\"0.7\"");
            svg += fmt::format(
                "<line x1=\"{0}\" x2=\"{1}\" y1=\"{2}\" y2=\"{2}\" stroke=\"{3}\" "
                "stroke-dasharray=\"6 4\" stroke-width=\"2\"/>"
                "<text x=\"{4}\" y=\"{5}\" font-size=\"11\">default MCS {6}</text>\n",
                plot_right + 10, plot_right + 30, legend_y, colour, plot_right + 34, legend_y + 4,
                column.default_column.mcs);
            legend_y += 16;
        }
        if (column.knee_index > 0) {
            const double dbm = level_dbm(column.column.levels[column.knee_index]);
            svg += fmt::format(
                "<circle class=\"knee\" cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"5\" fill=\"none\" "
                "stroke=\"{}\" stroke-width=\"2\"><title>MCS {} knee at level {}</title>"
                "</circle>\n",
                scale.x(column.knee_index), scale.y(dbm), colour, column.column.mcs,
                column.knee_index);
        }
        if (column.has_limit && column.max_legal_index > 0) {
            const double x = scale.x(column.max_legal_index);
            const double y = scale.y(level_dbm(column.column.levels[column.max_legal_index]));
            svg += fmt::format(
                "<path class=\"legal\" d=\"M{:.1f} {:.1f} l5 5 l-5 5 l-5 -5 z\" fill=\"{}\">"
                "<title>MCS {} highest legal index {}</title></path>\n",
                x, y - 5, colour, column.column.mcs, column.max_legal_index);
        }
        if (column.has_limit && !(limit_drawn == column.limit_dbm)) {
            limit_drawn = column.limit_dbm;
            svg += fmt::format(
                "<line class=\"limit\" x1=\"{0}\" x2=\"{1}\" y1=\"{2:.1f}\" y2=\"{2:.1f}\" "
                "stroke=\"#d62728\" stroke-width=\"2\"/>"
                "<text x=\"{3}\" y=\"{4:.1f}\" font-size=\"11\" fill=\"#d62728\" "
                "text-anchor=\"end\">limit {5:.2f} dBm</text>\n",
                kLeft, plot_right, scale.y(column.limit_dbm), plot_right - 4,
                scale.y(column.limit_dbm) - 4, column.limit_dbm);
        }
    }
    svg += fmt::format(
        "<text x=\"{}\" y=\"{}\" font-size=\"11\">&#9675; knee</text>"
        "<text x=\"{}\" y=\"{}\" font-size=\"11\">&#9670; highest legal</text>\n</svg>\n",
        plot_right + 10, legend_y + 8, plot_right + 10, legend_y + 24);
    return svg;
}

std::string value_cell(const LevelCells& cells) {
    if (cells.temperature_stop)
        return "<td colspan=\"3\">TEMP_ERROR</td>";
    if (!cells.has_value)
        return "<td colspan=\"3\">&ndash;</td>";
    return fmt::format("<td>{:.2f}</td><td>{:.2f}</td><td>{:.2f}</td>", cells.mv, cells.mw,
                       level_dbm(cells));
}

std::string band_section(Band band, const std::vector<const ColumnVerdict*>& columns) {
    std::string html = fmt::format("<section class=\"band\">\n<h2>{} GHz</h2>\n{}", band_name(band),
                                   chart(columns));
    html += "<h3>Findings</h3>\n<ul>\n";
    bool any = false;
    for (const ColumnVerdict* column : columns) {
        for (const Finding& finding : column->findings) {
            any = true;
            html += fmt::format(
                "<li><span class=\"{0}\">{0}</span> MCS {1} <code>{2}</code>: {3}</li>\n",
                severity_name(finding.severity), column->column.mcs, escape(finding.code),
                escape(finding.message));
        }
    }
    if (!any)
        html += "<li>none</li>\n";
    html +=
        "</ul>\n</section>\n<section class=\"values\">\n<h3>Values</h3>\n<table>\n<tr><th "
        "rowspan=\"2\">level</th>";
    for (const ColumnVerdict* column : columns)
        html += fmt::format("<th colspan=\"3\">MCS {}</th>", column->column.mcs);
    html += "</tr>\n<tr>";
    for (size_t i = 0; i < columns.size(); ++i)
        html += "<th>mV</th><th>mW</th><th>dBm</th>";
    html += "</tr>\n";
    for (int level = 1; level <= kJudgedLevels; ++level) {
        html += fmt::format("<tr><th>{}</th>", level);
        for (const ColumnVerdict* column : columns)
            html += value_cell(column->column.levels[level]);
        html += "</tr>\n";
    }
    return html + "</table>\n</section>\n";
}

}  // namespace

std::string format_report_html(const Verdict& verdict, const std::string& dir) {
    const char* overall = severity_name(verdict.verdict);
    std::string html = fmt::format(
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        "<title>Calibration verdict: {0}</title>\n<style>\n"
        "body {{ font-family: sans-serif; margin: 2em; color: #222; }}\n"
        ".pass {{ color: #1a7f37; }} .warn {{ color: #9a6700; }} .fail {{ color: #cf222e; }}\n"
        "table {{ border-collapse: collapse; font-size: 12px; margin-bottom: 1em; }}\n"
        "td, th {{ border: 1px solid #bbb; padding: 2px 6px; text-align: right; }}\n"
        "svg {{ max-width: 100%; height: auto; }}\n"
        "section.band {{ break-inside: avoid; page-break-inside: avoid; }}\n"
        "@media print {{ body {{ margin: 0; }} section.band {{ break-before: page; }} "
        "table {{ font-size: 9px; }} }}\n"
        "</style>\n</head>\n<body>\n"
        "<h1>Calibration verdict: <span class=\"{0}\">{0}</span></h1>\n"
        "<p>Files in <code>{1}</code>. Region: {2}; antenna gain {3:g} dBi; cable loss {4:g} dB. "
        "Levels 1 to 60 judged; output is 10&middot;log10 of the mW value.</p>\n",
        overall, escape(dir), region_name(verdict.options.region), verdict.options.antenna_gain_dbi,
        verdict.options.cable_loss_db);

    html +=
        "<table>\n<tr><th>band</th><th>MCS</th><th>verdict</th><th>max dBm</th>"
        "<th>knee</th><th>limit dBm</th><th>highest legal</th><th>findings</th></tr>\n";
    for (const ColumnVerdict& column : verdict.columns) {
        std::string codes;
        for (const Finding& finding : column.findings)
            codes += (codes.empty() ? "" : ", ") + finding.code;
        html += fmt::format(
            "<tr><td>{}</td><td>{}</td><td class=\"{}\">{}</td><td>{}</td><td>{}</td>"
            "<td>{}</td><td>{}</td><td>{}</td></tr>\n",
            band_name(column.band), column.column.mcs, severity_name(column.verdict),
            severity_name(column.verdict),
            column.has_max ? fmt::format("{:.2f}", column.max_dbm) : "&ndash;",
            column.knee_index > 0 ? std::to_string(column.knee_index) : "&ndash;",
            column.has_limit ? fmt::format("{:.2f}", column.limit_dbm) : "&ndash;",
            column.has_limit && column.max_legal_index > 0 ? std::to_string(column.max_legal_index)
                                                           : "&ndash;",
            codes.empty() ? "none" : escape(codes));
    }
    html += "</table>\n";

    for (Band band : {Band::b2_4, Band::b5_1, Band::b5_8}) {
        std::vector<const ColumnVerdict*> columns;
        for (const ColumnVerdict& column : verdict.columns)
            if (column.band == band)
                columns.push_back(&column);
        if (!columns.empty())
            html += band_section(band, columns);
    }
    return html + "</body>\n</html>\n";
}
