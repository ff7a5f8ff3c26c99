// orca-vtx-calreport as an operator runs it: exit statuses and messages, the JSON file,
// the accepted-calibration history, and the report of a calibration made by the real tool
// on the simulated board.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <orca-vtx/calibration-verdict.h>

#include "board_run.h"
#include "run_process.h"

namespace {

using orca_test::read_file;
using orca_test::run_process;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A band file of one MCS from the embedded default curve, every mW scaled by `db`.
std::string band_file(orca_verdict::Band band, int mcs, double db = 0.0, int missing = 0) {
    orca_verdict::CalibrationColumn column;
    EXPECT_EQ(orca_verdict::default_curve(band, mcs, column), 0);
    std::string text =
        "Power_Level,MCS" + std::to_string(mcs) + "_mV,MCS" + std::to_string(mcs) + "_mW\n";
    for (int level = 1; level <= orca_verdict::kFileLevels; ++level) {
        const orca_verdict::LevelCells& cells = column.levels[level];
        char row[96];
        if (cells.has_value && level != missing)
            snprintf(row, sizeof row, "%d,%.2f,%.2f\n", level, cells.mv,
                     cells.mw * std::pow(10.0, db / 10.0));
        else
            snprintf(row, sizeof row, "%d,-1,-1\n", level);
        text += row;
    }
    return text;
}

// What the command shows on a terminal, as on an operator's console.
std::string run_on_terminal(const std::vector<std::string>& args, bool no_color) {
    int terminal = -1;
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid < 0)
        return "forkpty failed";
    if (pid == 0) {
        if (no_color)
            setenv("NO_COLOR", "", 1);  // set, even empty
        else
            unsetenv("NO_COLOR");
        std::vector<std::string> command;
#ifdef ORCA_TEST_EMULATOR
        // A cross build's program runs under its emulator.
        std::istringstream words(ORCA_TEST_EMULATOR);
        for (std::string word; std::getline(words, word, '|');)
            command.push_back(word);
#endif
        command.insert(command.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (const std::string& arg : command)
            argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    std::string out;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = read(terminal, buffer, sizeof buffer)) > 0)  // EIO once the child is gone
        out.append(buffer, static_cast<size_t>(got));
    close(terminal);
    int status = 0;
    waitpid(pid, &status, 0);
    return out;
}

class CalreportCommand : public testing::Test {
  protected:
    orca_test::ProcessResult report(std::vector<std::string> options) {
        options.insert(options.begin(), ORCA_CALREPORT_BINARY);
        return run_process(options);
    }
    std::string dir(const std::string& name) const { return tmp_.path() + "/" + name; }
    void write(const std::string& name, const std::string& text) { tmp_.write_file(name, text); }
    orca_test::TempDir tmp_;
};

TEST_F(CalreportCommand, ExitStatusSaysPassWarnFailOrUnusable) {
    using orca_verdict::Band;
    write("good/calibrated_2_4.csv", band_file(Band::b2_4, 0));
    write("good/calibrated_5_8.csv", band_file(Band::b5_8, 3));
    write("warn/calibrated_5_1.csv", band_file(Band::b5_1, 1, 4.0));
    write("fail/calibrated_5_1.csv", band_file(Band::b5_1, 1, 0.0, 17));
    write("bad/calibrated_2_4.csv", band_file(Band::b2_4, 0));
    write("bad/calibrated_5_1.csv", "level,value\n1,2\n");
    write("empty/notes.txt", "no calibration here\n");
    struct Case {
        std::vector<std::string> options;
        int status;
        std::string stdout_part;
        std::string stderr_part;
    };
    const std::vector<Case> cases = {
        {{"--dir", dir("good")}, 0, "Overall: pass (2 columns: 2 pass, 0 warn, 0 fail)", ""},
        {{"--dir=" + dir("warn")}, 0, "5.1 GHz MCS 1: warn", ""},
        {{"--dir", dir("fail")}, 1, "findings: missing-levels\nOverall: fail", ""},
        {{"--dir", dir("good"), "--region", "etsi", "--antenna-gain", "12"},
         1,
         "no-legal-level",
         ""},
        {{"--dir", dir("good"), "--region", "fcc", "--antenna-gain", "2", "--cable-loss", "1"},
         0,
         // 31 dBm allowed; level 56 gives 1258.93 mW, just over 10^3.1 mW.
         "2.4 GHz MCS 0: pass  max 31.00 dBm  knee 55  legal 55",
         ""},
        {{"--dir", dir("nowhere")}, 2, "", "Error: no calibration directory"},
        {{"--dir", dir("empty")}, 2, "", "Error: no calibration file in"},
        {{"--dir", dir("bad")}, 2, "", "calibrated_5_1.csv is not a calibration file"},
        {{"--dir", dir("good"), "--region", "moon"}, 2, "", "Error: unknown region 'moon'"},
        {{"--dir", dir("good"), "--antenna-gain", "high"}, 2, "", "Error: antenna gain"},
        {{"--dir", dir("good"), "--cable-loss", "-2"}, 2, "", "Error: cable loss"},
        {{"--dir", dir("good"), "--json"}, 2, "", "Error: --json needs a value"},
        {{"--verbose"}, 2, "", "Error: unknown option '--verbose'"},
        {{"--dir", dir("good"), "--json", dir("nowhere/r.json")}, 2, "", "Error: cannot write"},
        {{"--dir", dir("good"), "--previous", "latest"}, 2, "", "Error: no accepted calibration"},
        {{"--dir", dir("good"), "--previous", dir("empty")}, 2, "", "Error: previous calibration"},
        {{"--help"}, 0, "Usage: orca-vtx-calreport", ""},
    };
    for (const Case& c : cases) {
        const orca_test::ProcessResult result = report(c.options);
        SCOPED_TRACE(c.options.back());
        EXPECT_EQ(result.exit_status, c.status) << result.out << result.err;
        EXPECT_TRUE(contains(result.out, c.stdout_part)) << result.out;
        EXPECT_TRUE(contains(result.err, c.stderr_part)) << result.err;
        if (c.status == 2) {
            EXPECT_EQ(result.err.rfind("Error: ", 0), 0u) << result.err;
        }
        // Not a terminal: no colour codes whatever the verdict.
        EXPECT_FALSE(contains(result.out, "\033[")) << result.out;
    }
}

TEST_F(CalreportCommand, VerdictsAreColouredOnATerminalUnlessNoColorIsSet) {
    write("cal/calibrated_2_4.csv", band_file(orca_verdict::Band::b2_4, 0));
    write("cal/calibrated_5_1.csv", band_file(orca_verdict::Band::b5_1, 0, 0.0, 3));
    const std::vector<std::string> args{ORCA_CALREPORT_BINARY, "--dir", dir("cal")};
    const std::string coloured = run_on_terminal(args, false);
    EXPECT_TRUE(contains(coloured, "2.4 GHz MCS 0: \033[1;32mpass\033[0m")) << coloured;
    EXPECT_TRUE(contains(coloured, "Overall: \033[1;31mfail\033[0m")) << coloured;
    const std::string plain = run_on_terminal(args, true);
    EXPECT_TRUE(contains(plain, "Overall: fail (2 columns")) << plain;
    EXPECT_FALSE(contains(plain, "\033[")) << plain;
}

TEST_F(CalreportCommand, JsonCarriesEveryColumnWithItsLevelsAndFindings) {
    using orca_verdict::Band;
    write("cal/calibrated_2_4.csv", band_file(Band::b2_4, 0));
    write("cal/calibrated_5_8.csv", band_file(Band::b5_8, 1, 0.0, 5));
    const orca_test::ProcessResult result =
        report({"--dir", dir("cal"), "--region", "fcc", "--antenna-gain", "9", "--cable-loss",
                "0.5", "--json", dir("r.json")});
    EXPECT_EQ(result.exit_status, 1) << result.err;
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(
        cJSON_Parse(read_file(dir("r.json")).c_str()), cJSON_Delete);
    ASSERT_TRUE(root);
    auto text = [](const cJSON* object, const char* key) {
        const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
        return cJSON_IsString(item) ? std::string(item->valuestring) : std::string("<none>");
    };
    auto number = [](const cJSON* object, const char* key) {
        const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
        return cJSON_IsNumber(item) ? item->valuedouble : NAN;
    };
    EXPECT_EQ(text(root.get(), "verdict"), "fail");
    EXPECT_EQ(text(root.get(), "region"), "fcc");
    EXPECT_EQ(number(root.get(), "antenna_gain_dbi"), 9.0);
    EXPECT_EQ(number(root.get(), "cable_loss_db"), 0.5);
    const cJSON* columns = cJSON_GetObjectItemCaseSensitive(root.get(), "columns");
    ASSERT_EQ(cJSON_GetArraySize(columns), 2);

    const cJSON* first = cJSON_GetArrayItem(columns, 0);
    EXPECT_EQ(text(first, "band"), "2.4");
    EXPECT_EQ(number(first, "mcs"), 0);
    EXPECT_EQ(text(first, "verdict"), "pass");
    EXPECT_EQ(number(first, "max_dbm"), 31.0);  // 1258.93 mW
    EXPECT_EQ(number(first, "knee_index"), 55);
    EXPECT_EQ(number(first, "limit_dbm"), 27.5);      // 30 - (9 - 6) + 0.5
    EXPECT_EQ(number(first, "max_legal_index"), 45);  // 562.34 mW; level 46 609.54 mW
    const cJSON* levels = cJSON_GetObjectItemCaseSensitive(first, "levels");
    ASSERT_EQ(cJSON_GetArraySize(levels), 60);
    const cJSON* level1 = cJSON_GetArrayItem(levels, 0);
    EXPECT_EQ(cJSON_GetArrayItem(level1, 0)->valuedouble, 1);
    EXPECT_DOUBLE_EQ(cJSON_GetArrayItem(level1, 1)->valuedouble, 355.96);
    EXPECT_DOUBLE_EQ(cJSON_GetArrayItem(level1, 2)->valuedouble, 16.22);
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItemCaseSensitive(first, "findings")), 0);

    const cJSON* second = cJSON_GetArrayItem(columns, 1);
    EXPECT_EQ(text(second, "band"), "5.8");
    EXPECT_EQ(text(second, "verdict"), "fail");
    EXPECT_EQ(number(second, "max_legal_index"), 4);  // level 5 has no value
    EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItemCaseSensitive(second, "levels")), 59);
    const cJSON* finding =
        cJSON_GetArrayItem(cJSON_GetObjectItemCaseSensitive(second, "findings"), 0);
    EXPECT_EQ(text(finding, "code"), "missing-levels");
    EXPECT_EQ(text(finding, "severity"), "fail");
    EXPECT_EQ(text(finding, "message"), "no value at level 5");

    // Without a region the limit fields are null.
    ASSERT_EQ(report({"--dir", dir("cal"), "--json", dir("r.json")}).exit_status, 1);
    root.reset(cJSON_Parse(read_file(dir("r.json")).c_str()));
    first = cJSON_GetArrayItem(cJSON_GetObjectItemCaseSensitive(root.get(), "columns"), 0);
    EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItemCaseSensitive(first, "limit_dbm")));
    EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItemCaseSensitive(first, "max_legal_index")));
}

TEST_F(CalreportCommand, AcceptedCalibrationIsTheBaseOfTheNextComparison) {
    using orca_verdict::Band;
    const std::string original = band_file(Band::b5_1, 3);
    write("cal/calibrated_5_1.csv", original);
    write("older/calibrated_5_1.csv", band_file(Band::b5_1, 3, -1.5));

    orca_test::ProcessResult result = report({"--dir", dir("cal"), "--accept"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    const std::string prefix = "Accepted calibration stored in " + dir("cal/history/");
    ASSERT_TRUE(contains(result.out, prefix)) << result.out;
    const size_t at = result.out.find(prefix);
    const std::string first = result.out.substr(at, result.out.find('\n', at) - at)
                                  .substr(std::string("Accepted calibration stored in ").size());
    EXPECT_EQ(read_file(first + "/calibrated_5_1.csv"), original);
    struct stat info {};
    EXPECT_NE(stat((first + "/calibrated_2_4.csv").c_str(), &info), 0);

    // The card changed: 2 dB more everywhere, then 4 dB.
    write("cal/calibrated_5_1.csv", band_file(Band::b5_1, 3, 2.0));
    result = report({"--dir", dir("cal"), "--previous", "latest"});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_TRUE(contains(result.out, "5.1 GHz MCS 3: warn")) << result.out;
    EXPECT_TRUE(contains(result.out, "findings: changed")) << result.out;
    // Compared with a folder named directly.
    result = report({"--dir", dir("cal"), "--previous", dir("older")});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_TRUE(contains(result.out, "changed")) << result.out;

    // Accepting the changed card makes it the newest snapshot: nothing changed since.
    ASSERT_EQ(report({"--dir", dir("cal"), "--accept"}).exit_status, 0);
    result = report({"--dir", dir("cal"), "--previous", "latest"});
    EXPECT_FALSE(contains(result.out, "changed")) << result.out;
    write("cal/calibrated_5_1.csv", band_file(Band::b5_1, 3, -2.0));
    result = report({"--dir", dir("cal"), "--previous", "latest"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_TRUE(contains(result.out, "5.1 GHz MCS 3: fail")) << result.out;
    // A snapshot still being written is never the newest.
    mkdir(dir("cal/history/.incoming-99991231T235959Z-1").c_str(), 0755);
    result = report({"--dir", dir("cal"), "--previous", "latest"});
    EXPECT_EQ(result.exit_status, 1) << result.err;
}

#ifdef ORCA_BOARD_SIM
TEST(CalreportEndToEnd, CalibrationOfTheDefaultBoardPasses) {
    orca_test::TempDir tmp;
    const std::string board = tmp.path() + "/board";
    // Through the shared board run, which also fails the test on frames no device understood.
    const orca_test::BoardRun calibration =
        orca_test::run_on_board({},
                                {ORCA_MONITOR_BINARY, "-d", "1", "-fast-calibrate", "-f", "2412",
                                 "-f", "5180", "-f", "5805", "-m", "0"},
                                board);
    ASSERT_EQ(calibration.result.exit_status, 0) << calibration.result.err;
    const orca_test::ProcessResult result =
        run_process({ORCA_CALREPORT_BINARY, "--dir", board + "/data/quillon/vtx", "--region", "fcc",
                     "--json", tmp.path() + "/r.json"});
    EXPECT_EQ(result.exit_status, 0) << result.out << result.err;
    EXPECT_TRUE(contains(result.out, "Overall: pass (3 columns: 3 pass, 0 warn, 0 fail)"))
        << result.out;
}
#endif

}  // namespace
