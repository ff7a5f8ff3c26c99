// Running commands through the system shell, for the radio and system wrappers.
#pragma once

#include <string>

namespace orca_shell {

// Runs `command` with system(): the command's exit status, 128 plus the signal number
// when a signal ended it, or -1 when the shell could not be started.
int run(const std::string& command);

// Interface and service names are pasted into shell command lines; a name with anything
// beyond letters, digits and "-_.:@", or one that begins with "-" (it would be read as an
// option), is refused (with a message) rather than handed to the shell, where it could run
// commands of its own.
bool is_safe_name(const std::string& name, const char* what);

}  // namespace orca_shell
