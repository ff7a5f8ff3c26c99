// The machine-readable form, for the production line and the service's tooling.
#include <cjson/cJSON.h>

#include <cmath>
#include <cstdlib>
#include <memory>

#include "report.h"

using namespace orca_verdict;

namespace {

// Two decimals, as the calibration files carry them; more would be noise.
double rounded(double value) {
    return std::round(value * 100.0) / 100.0;
}

cJSON* column_json(const ColumnVerdict& verdict) {
    cJSON* column = cJSON_CreateObject();
    cJSON_AddStringToObject(column, "band", band_name(verdict.band));
    cJSON_AddNumberToObject(column, "mcs", verdict.column.mcs);
    cJSON_AddStringToObject(column, "verdict", severity_name(verdict.verdict));
    if (verdict.has_max)
        cJSON_AddNumberToObject(column, "max_dbm", rounded(verdict.max_dbm));
    else
        cJSON_AddNullToObject(column, "max_dbm");
    if (verdict.knee_index > 0)
        cJSON_AddNumberToObject(column, "knee_index", verdict.knee_index);
    else
        cJSON_AddNullToObject(column, "knee_index");
    if (verdict.has_limit)
        cJSON_AddNumberToObject(column, "limit_dbm", rounded(verdict.limit_dbm));
    else
        cJSON_AddNullToObject(column, "limit_dbm");
    if (verdict.has_limit && verdict.max_legal_index > 0)
        cJSON_AddNumberToObject(column, "max_legal_index", verdict.max_legal_index);
    else
        cJSON_AddNullToObject(column, "max_legal_index");

    cJSON* levels = cJSON_AddArrayToObject(column, "levels");
    for (int level = 1; level <= kJudgedLevels; ++level) {
        const LevelCells& cells = verdict.column.levels[level];
        if (!cells.has_value)
            continue;
        const double values[3] = {static_cast<double>(level), cells.mv, cells.mw};
        cJSON_AddItemToArray(levels, cJSON_CreateDoubleArray(values, 3));
    }
    cJSON* findings = cJSON_AddArrayToObject(column, "findings");
    for (const Finding& finding : verdict.findings) {
        cJSON* item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "code", finding.code.c_str());
        cJSON_AddStringToObject(item, "severity", severity_name(finding.severity));
        cJSON_AddStringToObject(item, "message", finding.message.c_str());
        cJSON_AddItemToArray(findings, item);
    }
    return column;
}

}  // namespace

std::string format_report_json(const Verdict& verdict) {
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_CreateObject(), cJSON_Delete);
    if (!root)
        return {};
    cJSON_AddStringToObject(root.get(), "verdict", severity_name(verdict.verdict));
    cJSON_AddStringToObject(root.get(), "region", region_name(verdict.options.region));
    cJSON_AddNumberToObject(root.get(), "antenna_gain_dbi", verdict.options.antenna_gain_dbi);
    cJSON_AddNumberToObject(root.get(), "cable_loss_db", verdict.options.cable_loss_db);
    cJSON* columns = cJSON_AddArrayToObject(root.get(), "columns");
    for (const ColumnVerdict& column : verdict.columns)
        cJSON_AddItemToArray(columns, column_json(column));
    char* printed = cJSON_Print(root.get());
    if (printed == nullptr)
        return {};
    std::string text = printed;
    cJSON_free(printed);
    return text + "\n";
}
