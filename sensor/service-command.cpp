#include "service-command.h"

#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

int run_shell_command(const char* command) {
    fflush(stdout);
    const int status = system(command);
    if (status != -1 && WIFSIGNALED(status)) {
        const int signal_number = WTERMSIG(status);
        if (signal_number == SIGINT || signal_number == SIGQUIT)
            raise(signal_number);
    }
    return status;
}

int run_configure_vtx(const char* option, int value) {
    char command[64];
    snprintf(command, sizeof command, "orca-configure-vtx %s %d", option, value);
    return run_shell_command(command);
}
