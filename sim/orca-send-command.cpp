// orca-send-command on the simulated board: sends a command to one of the transmitter
// service's pipes. It logs the call to the sandbox's command log; "vtx_latency stop_test 1"
// ends the service's latency test, so the radio stops transmitting. The board state key
// send_command_status=N makes it exit with status N instead of 0.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "board-state.h"
#include "rf-model.h"
#include "sandbox.h"

int main(int argc, char* argv[]) {
    const char* root = std::getenv("ORCA_SIM_ROOT");
    if (root == nullptr || *root == '\0') {
        std::fprintf(stderr, "orca-send-command: no simulated board (ORCA_SIM_ROOT is unset)\n");
        return 1;
    }
    std::string call = "orca-send-command";
    for (int i = 1; i < argc; ++i)
        call += std::string(" ") + argv[i];
    board_sim::append_line(board_sim::command_log_path(root), call);
    if (argc < 3) {
        std::fprintf(stderr, "Usage: orca-send-command PIPE COMMAND [ARGS...]\n");
        return 1;
    }

    const std::string state_path = board_sim::state_file_path(root);
    board_sim::BoardState state;
    if (board_sim::load_state(state_path, &state) != 0)
        return 1;
    const auto status = state.extra.find("send_command_status");
    if (status != state.extra.end() && status->second != "0")
        return std::atoi(status->second.c_str());
    if (call == "orca-send-command vtx_latency stop_test 1") {
        return board_sim::update_state(state_path,
                                       [](board_sim::BoardState* s) {
                                           s->tx_on = false;
                                           s->output_dbm = board_sim::output_dbm(*s);
                                       }) == 0
                   ? 0
                   : 1;
    }
    return 0;
}
