// The calibration checks and regional limits of liborca-vtx, on hand-made calibration
// texts: each finding from the file shape that causes it, and the limits of both regions.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <orca-vtx/calibration-verdict.h>

using namespace orca_verdict;

namespace {

// mW per level 1 to 63 as text cells; "" leaves the row out.
using Cells = std::vector<std::string>;

std::string mw_text(double mw) {
    char text[32];
    snprintf(text, sizeof text, "%.2f", mw);
    return text;
}

// The embedded default curve of a band and MCS as the tool would write it.
Cells default_cells(Band band, int mcs) {
    CalibrationColumn column;
    EXPECT_EQ(default_curve(band, mcs, column), 0);
    Cells cells(kFileLevels + 1, "-1");
    for (int level = 1; level <= kFileLevels; ++level)
        if (column.levels[level].has_value)
            cells[level] = mw_text(column.levels[level].mw);
    return cells;
}

Cells scaled(Cells cells, double db) {
    for (int level = 1; level <= kFileLevels; ++level)
        if (cells[level] != "-1")
            cells[level] = mw_text(std::stod(cells[level]) * std::pow(10.0, db / 10.0));
    return cells;
}

std::string file_text(int mcs, const Cells& cells) {
    std::string text =
        "Power_Level,MCS" + std::to_string(mcs) + "_mV,MCS" + std::to_string(mcs) + "_mW\n";
    for (int level = 1; level <= kFileLevels; ++level) {
        if (cells[level].empty())
            continue;
        const std::string mv = cells[level].compare(0, 10, "TEMP_ERROR") == 0 ? cells[level]
                               : cells[level] == "-1" || cells[level] == "NA"
                                   ? cells[level]
                                   : std::to_string(300 + 10 * level);
        text += std::to_string(level) + "," + mv + "," + cells[level] + "\n";
    }
    return text;
}

CalibrationFile parsed(Band band, const std::string& text) {
    CalibrationFile file;
    std::string error;
    EXPECT_EQ(parse_calibration_text(text, band, file, error), 0) << error;
    return file;
}

std::set<std::string> codes_of(const ColumnVerdict& column) {
    std::set<std::string> codes;
    for (const Finding& finding : column.findings)
        codes.insert(finding.code + ":" + severity_name(finding.severity));
    return codes;
}

struct FindingCase {
    const char* name;
    Band band;
    int mcs;
    std::function<Cells(Cells)> edit;
    std::set<std::string> expected;
    Severity verdict;
    VerdictOptions options = {};
    std::function<Cells(Cells)> previous = nullptr;  // with --previous
};

// Edits of a default column, each a shape the checks must recognise.
using Edit = std::function<Cells(Cells)>;

Edit cell(int level, const std::string& text) {
    return [=](Cells c) {
        c[level] = text;
        return c;
    };
}

Edit by_db(double db) {
    return [=](Cells c) { return scaled(c, db); };
}

// Level 30 `db` below the highest level under it.
Edit dip(double db) {
    return [=](Cells c) {
        double highest = 0;
        for (int l = 1; l < 30; ++l)
            highest = std::max(highest, std::stod(c[l]));
        c[30] = mw_text(highest * std::pow(10.0, -db / 10.0));
        return c;
    };
}

// Levels 1 to 60 rising evenly by `db` in all from 20 dBm.
Edit span(double db) {
    return [=](Cells c) {
        for (int l = 1; l <= 60; ++l)
            c[l] = mw_text(100.0 * std::pow(10.0, db / 10.0 * (l - 1) / 59.0));
        return c;
    };
}

// Flat from `knee`: only 0.4 dB more up to level 60.
Edit knee_at(int knee) {
    return [=](Cells c) {
        for (int l = knee + 1; l <= 60; ++l)
            c[l] = mw_text(std::stod(c[knee]) * std::pow(10.0, 0.04 * (l - knee) / (60.0 - knee)));
        return c;
    };
}

TEST(CalibrationVerdict, EachFileShapeGivesItsFindings) {
    const Edit same = [](Cells c) { return c; };
    const Edit mcs3_default = [](Cells) { return default_cells(Band::b5_8, 3); };
    const Edit rows_above_60 = [](Cells c) {
        c[61] = "NA";
        c[62] = "";
        return c;
    };
    const Edit two_db_drop = [](Cells c) {
        c[30] = mw_text(std::stod(c[29]) * 0.63);
        return c;
    };
    const Edit flat = [](Cells c) {
        for (int l = 1; l <= 60; ++l)
            c[l] = mw_text(100.0 + l * 0.1);  // 20.0 to 20.3 dBm
        return c;
    };
    const VerdictOptions etsi_high_gain{Region::etsi, 10.0, 0.0};
    const VerdictOptions etsi_low_gain{Region::etsi, 5.0, 0.0};
    const auto pass = Severity::pass;
    const auto warn = Severity::warn;
    const auto fail = Severity::fail;
    // clang-format off
    const std::vector<FindingCase> cases = {
        {"the default curve itself", Band::b2_4, 0, same, {}, pass},
        {"MCS 7 against the MCS 3 default", Band::b5_8, 7, mcs3_default, {}, pass},
        {"-1 at a level", Band::b2_4, 0, cell(20, "-1"), {"missing-levels:fail"}, fail},
        {"NA at a level", Band::b5_1, 1, cell(33, "NA"), {"missing-levels:fail"}, fail},
        {"an absent row", Band::b5_8, 0, cell(7, ""), {"missing-levels:fail"}, fail},
        {"an unreadable cell", Band::b5_8, 3, cell(12, "12.5x"), {"missing-levels:fail"}, fail},
        {"rows above 60 do not count", Band::b2_4, 1, rows_above_60, {}, pass},
        {"a temperature stop at the last level", Band::b2_4, 0, cell(60, "TEMP_ERROR_76_3"),
         {"temperature-stop:fail"}, fail},
        {"a drop of 2 dB", Band::b5_1, 0, two_db_drop, {"not-monotonic:fail"}, fail},
        {"a dip of 0.4 dB below the highest lower level is tolerated", Band::b5_8, 0, dip(0.4),
         {}, pass},
        {"a dip of 0.55 dB is not", Band::b5_8, 0, dip(0.55), {"not-monotonic:fail"}, fail},
        {"a flat column", Band::b5_8, 0, flat,
         {"no-response:fail", "default-deviation:fail", "early-saturation:warn"}, fail},
        {"a span of 2.95 dB", Band::b5_8, 0, span(2.95),
         {"no-response:fail", "default-deviation:fail"}, fail},
        {"a span of 3.05 dB", Band::b5_8, 0, span(3.05), {"default-deviation:fail"}, fail},
        // The default curve's knee is 55: flat from 43 is 12 levels early, from 46 nine,
        // from 47 only eight.
        {"a knee 12 levels early", Band::b2_4, 0, knee_at(43),
         {"early-saturation:warn", "default-deviation:warn"}, warn},
        {"a knee 9 levels early", Band::b2_4, 0, knee_at(46), {"early-saturation:warn"}, warn},
        {"a knee 8 levels early", Band::b2_4, 0, knee_at(47), {}, pass},
        {"2.9 dB above the default", Band::b5_1, 3, by_db(2.9), {}, pass},
        {"3.1 dB above the default", Band::b5_1, 3, by_db(3.1), {"default-deviation:warn"}, warn},
        {"4 dB above the default", Band::b5_1, 3, by_db(4.0), {"default-deviation:warn"}, warn},
        {"5.9 dB below the default", Band::b5_1, 3, by_db(-5.9), {"default-deviation:warn"}, warn},
        {"6.1 dB below the default", Band::b5_1, 3, by_db(-6.1), {"default-deviation:fail"}, fail},
        {"7 dB below the default", Band::b5_1, 3, by_db(-7.0), {"default-deviation:fail"}, fail},
        {"0.9 dB from the previous run", Band::b2_4, 3, by_db(0.9), {}, pass, {}, same},
        {"1.1 dB from the previous run", Band::b2_4, 3, by_db(1.1), {"changed:warn"}, warn, {}, same},
        {"2.9 dB from the previous run", Band::b2_4, 3, by_db(2.9), {"changed:warn"}, warn, {}, same},
        {"3.1 dB from the previous run", Band::b2_4, 3, by_db(3.1),
         {"changed:fail", "default-deviation:warn"}, fail, {}, same},
        {"1.5 dB from the previous run", Band::b2_4, 3, by_db(1.5), {"changed:warn"}, warn, {}, same},
        {"3.5 dB from the previous run", Band::b2_4, 3, by_db(-3.5),
         {"changed:fail", "default-deviation:warn"}, fail, {}, same},
        {"level 1 above the limit at 10 dBi", Band::b2_4, 0, same, {"no-legal-level:fail"}, fail,
         etsi_high_gain},
        {"level 1 within the limit at 5 dBi", Band::b2_4, 0, same, {}, pass, etsi_low_gain},
    };
    // clang-format on
    for (const FindingCase& c : cases) {
        SCOPED_TRACE(c.name);
        const Cells base = default_cells(c.band, c.mcs);
        const std::vector<CalibrationFile> files{parsed(c.band, file_text(c.mcs, c.edit(base)))};
        std::vector<CalibrationFile> previous;
        if (c.previous)
            previous.push_back(parsed(c.band, file_text(c.mcs, c.previous(base))));
        Verdict verdict;
        ASSERT_EQ(judge_calibration(files, c.options, c.previous ? &previous : nullptr, verdict),
                  0);
        ASSERT_EQ(verdict.columns.size(), 1u);
        EXPECT_EQ(codes_of(verdict.columns[0]), c.expected);
        EXPECT_EQ(verdict.columns[0].verdict, c.verdict);
        EXPECT_EQ(verdict.verdict, c.verdict);
        for (const Finding& finding : verdict.columns[0].findings)
            EXPECT_FALSE(finding.message.empty()) << finding.code;
    }
}

TEST(CalibrationVerdict, ColumnsAreJudgedOnTheirOwnAndTheWorstDecides) {
    const Cells good = default_cells(Band::b5_8, 1);
    Cells stuck = good;
    stuck[40] = "NA";
    // Two pairs in one file, the second MCS written before its first level is known.
    std::string text = "Power_Level,MCS1_mV,MCS1_mW,MCS4_mV,MCS4_mW\r\n";
    for (int level = 1; level <= kFileLevels; ++level)
        text += std::to_string(level) + ",500," + good[level] + ",500," + stuck[level] + "\r\n";
    const std::vector<CalibrationFile> files{parsed(Band::b5_8, text)};
    Verdict verdict;
    ASSERT_EQ(judge_calibration(files, {}, nullptr, verdict), 0);
    ASSERT_EQ(verdict.columns.size(), 2u);
    EXPECT_EQ(verdict.columns[0].verdict, Severity::pass);
    EXPECT_EQ(verdict.columns[1].column.mcs, 4);
    EXPECT_EQ(verdict.columns[1].default_column.mcs, 3);
    EXPECT_EQ(codes_of(verdict.columns[1]), std::set<std::string>{"missing-levels:fail"});
    EXPECT_EQ(verdict.verdict, Severity::fail);
    EXPECT_NEAR(verdict.columns[0].max_dbm, 10 * std::log10(std::stod(good[60])), 0.01);
}

TEST(CalibrationVerdict, TextThatIsNoCalibrationFileIsRefused) {
    const char* refused[] = {
        "",
        "\n1,2,3\n",
        "Level,MCS0_mV,MCS0_mW\n1,300,10\n",
        "Power_Level,MCS0_mV\n1,300\n",
        "Power_Level,MCS0_mW,MCS1_mV\n1,10,300\n",
        "Power_Level,MCSx_mV,MCSx_mW\n",
    };
    for (const char* text : refused) {
        CalibrationFile file;
        std::string error;
        EXPECT_EQ(parse_calibration_text(text, Band::b2_4, file, error), -1) << text;
        EXPECT_FALSE(error.empty());
    }
    CalibrationFile file;
    std::string error;
    EXPECT_EQ(
        parse_calibration_text("Power_Level,MCS0_mV,MCS0_mW\n", static_cast<Band>(7), file, error),
        -1);
    // A header alone is a calibration file with nothing measured.
    ASSERT_EQ(parse_calibration_text("Power_Level,MCS2_mV,MCS2_mW", Band::b5_1, file, error), 0);
    ASSERT_EQ(file.columns.size(), 1u);
    EXPECT_FALSE(file.columns[0].levels[1].has_value);
}

struct LimitCase {
    Band band;
    Region region;
    double gain_dbi;
    double loss_db;
    double limit_dbm;
};

TEST(RegionalLimits, DetectorLimitFollowsRegionBandGainAndLoss) {
    const LimitCase cases[] = {
        {Band::b2_4, Region::etsi, 3.0, 1.0, 18.0},  // EIRP: every dB of gain counts
        {Band::b2_4, Region::etsi, 9.0, 0.0, 11.0}, {Band::b5_1, Region::etsi, 3.0, 0.0, 20.0},
        {Band::b5_8, Region::etsi, 9.0, 2.0, 7.0},  {Band::b5_8, Region::etsi, -2.0, 0.0, 16.0},
        {Band::b2_4, Region::fcc, 3.0, 1.0, 31.0},  // conducted: gain up to 6 dBi is free
        {Band::b2_4, Region::fcc, 9.0, 0.0, 27.0},  {Band::b5_1, Region::fcc, 5.0, 0.0, 24.0},
        {Band::b5_1, Region::fcc, 8.5, 1.0, 22.5},  {Band::b5_8, Region::fcc, 6.0, 0.0, 30.0},
        {Band::b5_8, Region::fcc, 12.0, 0.0, 24.0},
    };
    for (const LimitCase& c : cases) {
        double limit = 0.0;
        ASSERT_EQ(detector_limit_dbm(c.band, c.region, c.gain_dbi, c.loss_db, &limit), 0);
        EXPECT_DOUBLE_EQ(limit, c.limit_dbm)
            << band_name(c.band) << " " << region_name(c.region) << " " << c.gain_dbi;
    }
    double limit = 0.0;
    EXPECT_EQ(detector_limit_dbm(Band::b2_4, Region::none, 3.0, 0.0, &limit), 1);
    EXPECT_EQ(detector_limit_dbm(Band::b2_4, Region::fcc, NAN, 0.0, &limit), -1);
    EXPECT_EQ(detector_limit_dbm(Band::b2_4, Region::fcc, 0.0, INFINITY, &limit), -1);
    EXPECT_EQ(detector_limit_dbm(Band::b2_4, Region::fcc, 0.0, -1.0, &limit), -1);
    EXPECT_EQ(detector_limit_dbm(static_cast<Band>(3), Region::fcc, 0.0, 0.0, &limit), -1);
    EXPECT_EQ(detector_limit_dbm(Band::b2_4, static_cast<Region>(9), 0.0, 0.0, &limit), -1);
    EXPECT_EQ(detector_limit_dbm(Band::b2_4, Region::fcc, 0.0, 0.0, nullptr), -1);
    Region region = Region::none;
    EXPECT_EQ(region_from_name("etsi", &region), 0);
    EXPECT_EQ(region, Region::etsi);
    EXPECT_EQ(region_from_name("ETSI", &region), -1);
    EXPECT_EQ(region_from_name(nullptr, &region), -1);
}

TEST(RegionalLimits, HighestLegalIndexStopsAtTheFirstLevelOverOrUnknown) {
    // 2.4 GHz MCS 0 default: level 21 gives 93.76 mW, level 22 105.44 mW.
    const Cells base = default_cells(Band::b2_4, 0);
    const CalibrationFile whole = parsed(Band::b2_4, file_text(0, base));
    EXPECT_EQ(max_legal_index(whole.columns[0], 20.0), 21);
    EXPECT_EQ(max_legal_index(whole.columns[0], 40.0), 60);
    EXPECT_EQ(max_legal_index(whole.columns[0], 5.0), -1);
    EXPECT_EQ(max_legal_index(whole.columns[0], NAN), -1);
    Cells gap = base;
    gap[10] = "NA";
    const CalibrationFile holed = parsed(Band::b2_4, file_text(0, gap));
    EXPECT_EQ(max_legal_index(holed.columns[0], 20.0), 9);

    Verdict verdict;
    ASSERT_EQ(judge_calibration({whole}, {Region::fcc, 9.0, 0.0}, nullptr, verdict), 0);
    EXPECT_TRUE(verdict.columns[0].has_limit);
    EXPECT_DOUBLE_EQ(verdict.columns[0].limit_dbm, 27.0);
    // Level 42 gives 501.19 mW, a hair over 27 dBm (501.187 mW).
    EXPECT_EQ(verdict.columns[0].max_legal_index, 41);
    ASSERT_EQ(judge_calibration({whole}, {}, nullptr, verdict), 0);
    EXPECT_FALSE(verdict.columns[0].has_limit);
    EXPECT_EQ(judge_calibration({whole}, {Region::fcc, 0.0, -3.0}, nullptr, verdict), -1);
}

}  // namespace
