// Stand-ins for the shell commands the library runs (iw, systemctl, ifconfig, ls, bash),
// put first on PATH for the life of the object. Each records its command line, prints
// what the test gave it and exits with the status the test chose.
#pragma once

#include <string>
#include <vector>

#include "run_process.h"

class CommandStandIns {
  public:
    CommandStandIns();
    ~CommandStandIns();
    // What the stand-in `name` prints, and its exit status, from now on.
    void set_output(const std::string& name, const std::string& text);
    void set_error_output(const std::string& name, const std::string& text);
    void set_status(const std::string& name, int status);
    // Every recorded command line, "name arg1 arg2 ...", in the order they ran.
    std::vector<std::string> calls() const;

  private:
    orca_test::TempDir dir_;
    std::string saved_path_;
};
