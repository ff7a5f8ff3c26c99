// The command line of orca-vtx-calreport. Options take their value as the next word or
// after "=".
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "report.h"

namespace {

bool parse_double(const char* text, double* value) {
    char* end = nullptr;
    const double parsed = std::strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(parsed))
        return false;
    *value = parsed;
    return true;
}

}  // namespace

const char* report_usage() {
    return "Usage: orca-vtx-calreport [--dir DIR] [--region none|fcc|etsi] [--antenna-gain DBI]\n"
           "                          [--cable-loss DB] [--previous DIR|latest] [--accept]\n"
           "                          [--json FILE] [--html FILE]\n"
           "Judges the calibration files calibrated_2_4.csv, calibrated_5_1.csv and\n"
           "calibrated_5_8.csv in DIR (default /data/quillon/vtx).\n"
           "Exit status: 0 pass or warn, 1 fail, 2 usage error or unusable input.\n";
}

int parse_report_options(int argc, char* argv[], ReportOptions* options) {
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i] != nullptr ? argv[i] : "";
        std::string value;
        bool has_value = false;
        const size_t equals = word.find('=');
        if (word.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            value = word.substr(equals + 1);
            word = word.substr(0, equals);
            has_value = true;
        }
        const bool takes_value = word == "--dir" || word == "--region" ||
                                 word == "--antenna-gain" || word == "--cable-loss" ||
                                 word == "--previous" || word == "--json" || word == "--html";
        if (takes_value && !has_value) {
            if (i + 1 >= argc || argv[i + 1] == nullptr) {
                fprintf(stderr, "Error: %s needs a value\n", word.c_str());
                return -1;
            }
            value = argv[++i];
        } else if (!takes_value && has_value) {
            fprintf(stderr, "Error: %s takes no value\n", word.c_str());
            return -1;
        }
        if (takes_value && value.empty()) {
            fprintf(stderr, "Error: %s needs a value\n", word.c_str());
            return -1;
        }

        if (word == "--dir") {
            options->dir = value;
        } else if (word == "--region") {
            if (orca_verdict::region_from_name(value.c_str(), &options->verdict.region) != 0) {
                fprintf(stderr, "Error: unknown region '%s' (none, fcc or etsi)\n", value.c_str());
                return -1;
            }
        } else if (word == "--antenna-gain") {
            if (!parse_double(value.c_str(), &options->verdict.antenna_gain_dbi)) {
                fprintf(stderr, "Error: antenna gain '%s' is not a number of dBi\n", value.c_str());
                return -1;
            }
        } else if (word == "--cable-loss") {
            if (!parse_double(value.c_str(), &options->verdict.cable_loss_db) ||
                options->verdict.cable_loss_db < 0.0) {
                fprintf(stderr, "Error: cable loss '%s' is not a number of dB, 0 or more\n",
                        value.c_str());
                return -1;
            }
        } else if (word == "--previous") {
            options->previous = value;
        } else if (word == "--json") {
            options->json_path = value;
        } else if (word == "--html") {
            options->html_path = value;
        } else if (word == "--accept") {
            options->accept = true;
        } else if (word == "--help" || word == "-h") {
            options->help = true;
        } else {
            fprintf(stderr, "Error: unknown option '%s'\n", word.c_str());
            return -1;
        }
    }
    return 0;
}
