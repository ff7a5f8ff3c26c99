// The sandbox of one simulation: a directory that stands in for the board's fixed paths
// (/data, /run/fjp, /usr/bin/rtw_mp_test.sh) and holds the shared state, the board's
// conversion tables and the simulated service's commands.
#pragma once

#include <string>

#include "board-state.h"

namespace board_sim {

// Prefixes of the fixed paths that a sandbox takes over; a path is mapped when it equals
// a prefix or continues it after a '/'.
extern const char* const kSandboxedPrefixes[3];

// Creates the directories, the shared block, the state file (with output_dbm filled in
// from the RF model) and the conversion tables. Returns 0 or -1 after a message.
int prepare_sandbox(const std::string& root, const BoardState& state);

// Where the simulated service's command log lives.
std::string command_log_path(const std::string& root);

// Where the simulated MP script logs its arguments and the commands it read.
std::string mp_log_path(const std::string& root);

// Writes the stand-in /usr/bin/rtw_mp_test.sh into the sandbox: a shell script that runs
// the simulator's MP program at `mp_program`. Returns 0 or -1 after a message.
int install_mp_script(const std::string& root, const std::string& mp_program);

// Appends `line` and a newline to a log file, creating it. append_raw writes bytes as they
// are and is safe in a signal handler.
void append_line(const std::string& path, const std::string& line);
void append_raw(const std::string& path, const char* bytes, size_t length);

// Removes a directory tree; used for sandboxes that their creator owns.
void remove_tree(const std::string& root);

}  // namespace board_sim
