// Wrappers over the shell commands that configure the wireless interface and query
// system services.
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include <fmt/core.h>

#include "command-output.h"
#include "orca-common.h"
#include "shell-command.h"

namespace {

std::string trim_blanks(const std::string& text) {
    const char* blanks = " \n\r\t";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return "";
    const size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

// "systemctl <verb> <service>" answers with one word; true when it is `expected`.
bool systemctl_answers(const char* verb, const std::string& service, const char* expected) {
    if (!orca_shell::is_safe_name(service, "service"))
        return false;
    const std::string command = fmt::format("systemctl {} {} 2>&1", verb, service);
    std::fflush(nullptr);
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        fmt::print(stderr, "ERROR: Failed to run systemctl {} command.\n", verb);
        return false;
    }
    const std::string answer = orca_command::read_all(pipe);
    pclose(pipe);
    return trim_blanks(answer) == expected;
}

}  // namespace

std::string run_command(const std::string& command) {
    std::fflush(nullptr);
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        fmt::print(stderr, "popen() failed!\n");
        return "";
    }
    std::string output = orca_command::read_all(pipe);
    pclose(pipe);
    return output;
}

bool is_service_running(const std::string& service) {
    return systemctl_answers("is-active", service, "active");
}

bool is_service_enabled(const std::string& service) {
    return systemctl_answers("is-enabled", service, "enabled");
}

int set_monitor_mode(std::string interface_name) {
    if (!orca_shell::is_safe_name(interface_name, "interface"))
        return -1;
    // The station and access-point services would take the interface back.
    const std::string commands[] = {
        "systemctl stop wpa_supplicant",
        "systemctl disable wpa_supplicant",
        "systemctl stop orca-softap",
        "systemctl disable orca-softap",
        fmt::format("ifconfig {} down", interface_name),
        fmt::format("iw dev {} set monitor otherbss", interface_name),
        fmt::format("ifconfig {} up", interface_name),
    };
    // A command that fails (a service that is not installed) does not stop the sequence;
    // only a shell that cannot be started does.
    for (const std::string& command : commands) {
        if (orca_shell::run(command) < 0)
            return -1;
    }
    return 0;
}

int set_ath0_monitor_mode(int channel) {
    std::printf("Setting monitor mode ath0\n");
    const char* band = channel < 15 ? "2G" : "5G";
    const std::string command =
        fmt::format("bash /usr/bin/enable_vrx.sh -b {} -c {}", band, channel);
    std::fflush(nullptr);
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        fmt::print(stderr, "popen() failed!\n");
        return -1;
    }
    orca_command::read_all(pipe);
    const int status = pclose(pipe);
    if (status == -1 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

int set_power(std::string card, int power_index, int alt_power_idx, bool primary_override,
              bool alt_power_enabled) {
    if (!orca_shell::is_safe_name(card, "interface"))
        return -1;
    const int value = !primary_override && alt_power_enabled ? alt_power_idx : power_index;
    return orca_shell::run(fmt::format("iw dev {} set txpower fixed {}", card, value));
}
