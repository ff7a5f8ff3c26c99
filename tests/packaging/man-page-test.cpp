// The man page is written by hand from the help text; these checks keep the two together:
// every option and every example the tool's help shows is in the page, and the page's
// defaults are the ones the tool starts with.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "run_process.h"

namespace {

// The page as a reader sees it, near enough: escaped minus signs and font changes undone.
std::string man_page_text() {
    std::string page = orca_test::read_file(MAN_PAGE_FILE);
    page = std::regex_replace(page, std::regex(R"(\\f[BIRP])"), "");
    page = std::regex_replace(page, std::regex(R"(\\-)"), "-");
    // Every ".B word" line becomes plain words, so that a command spread over macros reads
    // as one line.
    return std::regex_replace(page, std::regex(R"((^|\n)\.[A-Z]+ )"), "$1");
}

std::string help_text() {
    orca_test::TempDir bin;
    bin.write_file("i2cdetect", "#!/bin/sh\nexit 1\n", true);  // no detector on any bus
    orca_test::ProcessOptions options;
    options.path_prefix = bin.path();
    const auto result = orca_test::run_process({ORCA_MONITOR_BINARY, "-d", "0", "-help"}, options);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    return result.out;
}

TEST(ManPage, CarriesEveryOptionExampleAndDefaultOfTheHelp) {
    const std::string help = help_text();
    const std::string page = man_page_text();
    const std::regex option_line(R"(^  (-[-A-Za-z_]+)( or ([-A-Za-z_]+))?)");
    const std::regex example(R"(^  Example: \S+ (.*)$)");
    std::set<std::string> options;
    int examples = 0;
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_search(line, match, example)) {
            ++examples;
            EXPECT_NE(page.find("orca-vtx-i2c-monitor " + match[1].str()), std::string::npos)
                << match[1];
        } else if (std::regex_search(line, match, option_line)) {
            options.insert(match[1]);
            if (match[3].matched)
                options.insert(match[3]);
        }
    }
    EXPECT_EQ(examples, 3);
    // -d, -s, -p, two -adjust, -calibrate, -fast-calibrate, -f, -m, -temp_test, -mp, -help, help
    EXPECT_EQ(options.size(), 13u) << help;
    for (const std::string& option : options)
        EXPECT_TRUE(
            std::regex_search(page, std::regex("(^|[^-A-Za-z_])" + option + "($|[^-A-Za-z_])")))
            << option;

    // The help prints the pause with three decimals; the page gives the exact start value.
    EXPECT_NE(help.find("(default: 300)"), std::string::npos);
    EXPECT_NE(page.find("(default: 300)"), std::string::npos);
    EXPECT_NE(help.find("(default: 0.000)"), std::string::npos);
    EXPECT_NE(page.find("(default: 0.0001)"), std::string::npos);
}

}  // namespace
