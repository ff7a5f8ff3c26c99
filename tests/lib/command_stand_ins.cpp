#include "command_stand_ins.h"

#include <cstdlib>
#include <sstream>

namespace {
const char* const kCommands[] = {"iw", "systemctl", "ifconfig", "ls", "bash"};
}

CommandStandIns::CommandStandIns() {
    const std::string& dir = dir_.path();
    for (const char* name : kCommands) {
        const std::string n = name;
        dir_.write_file("bin/" + n,
                        "#!/bin/sh\n"
                        "echo \"" +
                            n + " $*\" >> '" + dir +
                            "/calls.log'\n"
                            "[ -f '" +
                            dir + "/" + n + ".out' ] && cat '" + dir + "/" + n +
                            ".out'\n"
                            "[ -f '" +
                            dir + "/" + n + ".err' ] && cat '" + dir + "/" + n +
                            ".err' >&2\n"
                            "exit $(cat '" +
                            dir + "/" + n + ".status' 2>/dev/null || echo 0)\n",
                        true);
    }
    const char* path = std::getenv("PATH");
    saved_path_ = path ? path : "/usr/bin:/bin";
    setenv("PATH", (dir + "/bin:" + saved_path_).c_str(), 1);
}

CommandStandIns::~CommandStandIns() {
    setenv("PATH", saved_path_.c_str(), 1);
}

void CommandStandIns::set_output(const std::string& name, const std::string& text) {
    dir_.write_file(name + ".out", text);
}

void CommandStandIns::set_error_output(const std::string& name, const std::string& text) {
    dir_.write_file(name + ".err", text);
}

void CommandStandIns::set_status(const std::string& name, int status) {
    dir_.write_file(name + ".status", std::to_string(status) + "\n");
}

std::vector<std::string> CommandStandIns::calls() const {
    std::vector<std::string> lines;
    std::istringstream log(orca_test::read_file(dir_.path() + "/calls.log"));
    for (std::string line; std::getline(log, line);)
        lines.push_back(line);
    return lines;
}
