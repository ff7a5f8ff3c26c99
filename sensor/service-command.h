// Shell commands of the tool: the transmitter service's configure command and the few
// system commands, all run under one rule.
#pragma once

// Runs `command` through the shell with system(), after flushing standard output so that
// our lines stay ahead of whatever the command prints. Returns what system() returns: -1
// when no shell could be started, else the shell's wait status.
// system() ignores SIGINT and SIGQUIT while the command runs, so the operator's Ctrl-C or
// Ctrl-\ reaches only the command. A command ended by one of them therefore ends this
// process by that same signal (its handler runs instead when one is installed; an ignored
// signal stays ignored), and this function does not return then.
int run_shell_command(const char* command);

// `orca-configure-vtx OPTION VALUE` (OPTION "-p", "-F" or "-m") through run_shell_command,
// with the same result.
int run_configure_vtx(const char* option, int value);
