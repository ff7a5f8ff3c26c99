#include "command_stand_ins.h"

#include <dlfcn.h>

#include <cstdlib>
#include <sstream>

namespace {

// One script for every name: it finds the test's answers from where it sits.
const char* const kStandIn = R"(#!/bin/sh
n=${0##*/}; d=${0%/bin/*}
echo "$n $*" >> "$d/calls.log"
cat "$d/$n.out" 2>/dev/null; cat "$d/$n.err" >&2 2>/dev/null
exit $(cat "$d/$n.status" 2>/dev/null || echo 0)
)";

int shell_starts_left = -1;  // -1: no limit

}  // namespace

// Takes the place of the C library's system() for the library under test, so that a test
// can make the shell fail to start, which nothing on PATH can do.
extern "C" int system(const char* command) {
    static const auto real = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "system"));
    if (shell_starts_left == 0)
        return -1;
    shell_starts_left -= shell_starts_left > 0;
    return real(command);
}

CommandStandIns::CommandStandIns()
    : saved_path_(std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin") {
    for (const char* name : {"iw", "systemctl", "ifconfig", "ls", "bash"})
        dir_.write_file(std::string("bin/") + name, kStandIn, true);
    setenv("PATH", (dir_.path() + "/bin:" + saved_path_).c_str(), 1);
}

CommandStandIns::~CommandStandIns() {
    setenv("PATH", saved_path_.c_str(), 1);
    shell_starts_left = -1;
}

void CommandStandIns::answer(const std::string& name, const std::string& out, int status,
                             const std::string& err) {
    dir_.write_file(name + ".out", out);
    dir_.write_file(name + ".err", err);
    dir_.write_file(name + ".status", std::to_string(status));
}

std::vector<std::string> CommandStandIns::calls() const {
    std::vector<std::string> lines;
    std::istringstream log(orca_test::read_file(dir_.path() + "/calls.log"));
    for (std::string line; std::getline(log, line);)
        lines.push_back(line);
    return lines;
}

void CommandStandIns::refuse_shell_after(int commands) {
    shell_starts_left = commands;
}
