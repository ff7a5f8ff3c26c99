// Runs a program as a user would and captures what it shows: standard output, standard
// error and exit status. Shared by the end-to-end tests of every area.
#pragma once

#include <csignal>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace orca_test {

struct ProcessResult {
    std::string out;
    std::string err;
    int exit_status = -1;  // exit code, or 128 + signal number when killed by a signal
};

struct ProcessOptions {
    std::vector<std::pair<std::string, std::string>> env;  // set (or overwrite) in the child
    std::string path_prefix;                               // put first on PATH when not empty
    std::string stdin_text;   // written to the child's standard input, then closed
    std::string working_dir;  // the child's working directory when not empty
    int timeout_ms = 20000;   // the child is killed after this long (five times it when emulated)
    // For programs that run until stopped: called with the output so far whenever more
    // arrives; once it returns true the child gets stop_signal, and the run goes on
    // collecting until the child has ended.
    std::function<bool(const ProcessResult&)> stop_when;
    int stop_signal = SIGTERM;
};

// argv[0] is the program (a path, or a name looked up on PATH).
ProcessResult run_process(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// A fresh directory under TMPDIR, removed with everything in it by the destructor.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    // Writes a file below the directory and returns its full path; `executable` sets 0755.
    std::string write_file(const std::string& name, const std::string& content,
                           bool executable = false) const;

  private:
    std::string path_;
};

std::string read_file(const std::string& path);
// True in a cross build, whose programs run under an emulator (qemu-user).
bool under_emulator();

}  // namespace orca_test
