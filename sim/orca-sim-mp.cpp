// The Realtek MP test script on the simulated board, run by the stand-in
// /usr/bin/rtw_mp_test.sh in the sandbox. It speaks the script's line protocol: a start
// marker once the radio is up with transmission paused, then one OK or ERR line for every
// command (freq, mcs, power, pause, resume), and "quit" to leave. It drives the board state
// as the real script drives the radio, and logs its arguments and every command it read to
// <sandbox>/mp.log, where tests read them.
//
// Board state keys that change its behaviour (all optional):
//   mp_start=fail|error|eof|stall  print FAIL or ERROR, leave without the marker, or hang
//   mp_refuse=WORD                 answer "ERR" to every command WORD (freq, power, ...)
//   mp_stall=WORD                  never answer command WORD
//   mp_flood=N                     print N other lines before every answer
//   mp_case=lower                  answer "ok" in lower case
//   mp_quit=ignore                 stay after "quit" until terminated
//   mp_interrupt=WORD              on command WORD, interrupt the tool (SIGINT, as Ctrl-C)
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "board-state.h"
#include "rf-model.h"
#include "sandbox.h"

namespace {

std::string g_log_path;

void log_line(const std::string& text) {
    board_sim::append_line(g_log_path, text);
}

void on_terminate(int) {
    static const char kLine[] = "terminated\n";
    board_sim::append_raw(g_log_path, kLine, sizeof kLine - 1);
    _exit(143);
}

std::string option(const board_sim::BoardState& state, const char* key) {
    const auto found = state.extra.find(key);
    return found == state.extra.end() ? std::string() : found->second;
}

void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

int argument_value(int argc, char* argv[], const char* name, int fallback) {
    const size_t length = std::strlen(name);
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], name, length) == 0 && argv[i][length] == '=')
            return std::atoi(argv[i] + length + 1);
    }
    return fallback;
}

// Applies one setting to the board; false for a command or value the radio refuses.
bool apply(const std::string& state_path, const std::string& word, const char* value_text) {
    char* end = nullptr;
    const long value = value_text ? std::strtol(value_text, &end, 10) : 0;
    const bool has_value = value_text != nullptr && *value_text != '\0' && *end == '\0';
    if ((word == "freq" || word == "mcs" || word == "power") && !has_value)
        return false;
    if (word == "power" && (value < 1 || value > 63))
        return false;
    if (word == "mcs" && (value < 0 || value > 31))
        return false;
    if (word != "freq" && word != "mcs" && word != "power" && word != "pause" && word != "resume")
        return false;
    return board_sim::update_state(state_path, [&](board_sim::BoardState* state) {
               if (word == "freq")
                   state->frequency_mhz = static_cast<int>(value);
               else if (word == "mcs")
                   state->mcs = static_cast<int>(value);
               else if (word == "power")
                   state->power_index = static_cast<int>(value);
               else
                   state->tx_on = word == "resume";
               state->output_dbm = board_sim::output_dbm(*state);
           }) == 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    const char* root = std::getenv("ORCA_SIM_ROOT");
    if (root == nullptr || *root == '\0') {
        std::fprintf(stderr, "rtw_mp_test.sh: no simulated board (ORCA_SIM_ROOT is unset)\n");
        return 1;
    }
    g_log_path = board_sim::mp_log_path(root);
    signal(SIGTERM, on_terminate);
    const std::string state_path = board_sim::state_file_path(root);
    board_sim::BoardState state;
    if (board_sim::load_state(state_path, &state) != 0)
        return 1;

    std::string started = "start";
    for (int i = 1; i < argc; ++i)
        started += std::string(" ") + argv[i];
    const char* no_color = std::getenv("NO_COLOR");
    started += std::string(" NO_COLOR=") + (no_color ? no_color : "(unset)");
    log_line(started);

    say("rtw_mp_test.sh: loading the MP driver");
    const std::string start = option(state, "mp_start");
    if (start == "fail") {
        say("FAIL: wlan0 has no MP interface");
        return 1;
    }
    if (start == "error") {
        say("ERROR: the radio driver is not the MP build");
        return 1;
    }
    if (start == "eof")
        return 1;
    if (start == "stall")
        pause();

    const int frequency = argument_value(argc, argv, "freq", state.frequency_mhz);
    const int mcs = argument_value(argc, argv, "mcs", state.mcs);
    board_sim::update_state(state_path, [&](board_sim::BoardState* s) {
        s->frequency_mhz = frequency;
        s->mcs = mcs;
        s->power_index = argument_value(argc, argv, "pwr", 1);
        s->tx_on = false;
        s->output_dbm = board_sim::output_dbm(*s);
    });
    say("continuous TX paused (freq=" + std::to_string(frequency) + " mcs=" + std::to_string(mcs) +
        ")");

    const std::string refuse = option(state, "mp_refuse");
    const std::string stall = option(state, "mp_stall");
    const int flood = std::atoi(option(state, "mp_flood").c_str());
    const bool lower_case = option(state, "mp_case") == "lower";
    const bool ignore_quit = option(state, "mp_quit") == "ignore";
    const std::string interrupt = option(state, "mp_interrupt");

    char line[256];
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        line[std::strcspn(line, "\r\n")] = '\0';
        log_line(line);
        char* value = std::strchr(line, ' ');
        if (value != nullptr)
            *value++ = '\0';
        const std::string word = line;
        if (word == "quit") {
            if (ignore_quit)
                continue;
            say("rtw_mp_test.sh: stopping");
            return 0;
        }
        for (int i = 0; i < flood; ++i)
            say("rtw_mp_test.sh: tx statistics " + std::to_string(i));
        if (word == interrupt) {
            kill(getppid(), SIGINT);
            pause();  // the tool's answer is SIGTERM
        }
        if (word == stall)
            continue;
        if (word == refuse || !apply(state_path, word, value)) {
            say("ERR " + word);
            continue;
        }
        say(lower_case ? "ok" : "OK");
    }
    // Standard input closed without "quit".
    if (ignore_quit)
        for (;;)
            pause();
    return 0;
}
