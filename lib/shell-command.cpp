#include "shell-command.h"

#include <sys/wait.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include <fmt/core.h>

namespace orca_shell {

int run(const std::string& command) {
    // Our own buffered output goes first, so that it stays in order with the command's.
    std::fflush(nullptr);
    const int status = std::system(command.c_str());
    if (status == -1)
        return -1;
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

bool is_safe_name(const std::string& name, const char* what) {
    // A leading "-" would reach the command as an option ("iw dev -rf ...").
    bool safe = !name.empty() && name[0] != '-';
    for (unsigned char c : name) {
        if (!std::isalnum(c) && c != '-' && c != '_' && c != '.' && c != ':' && c != '@')
            safe = false;
    }
    if (!safe)
        fmt::print(stderr, "Error: invalid {} name \"{}\"\n", what, name);
    return safe;
}

}  // namespace orca_shell
