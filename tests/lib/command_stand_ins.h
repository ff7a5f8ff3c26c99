// Stand-ins for the shell commands the library runs (iw, systemctl, ifconfig, ls, bash),
// first on PATH for the life of the object. Each records its command line, prints what
// the test gave it and exits with the status the test chose.
#pragma once

#include <string>
#include <vector>

#include "run_process.h"

class CommandStandIns {
  public:
    CommandStandIns();
    ~CommandStandIns();
    // What `name` prints on standard output and error from now on, and its exit status.
    void answer(const std::string& name, const std::string& out, int status = 0,
                const std::string& err = "");
    // Every command line run so far, "name arg1 arg2 ...".
    std::vector<std::string> calls() const;
    // After `commands` more shell starts, the shell can no longer be started at all.
    void refuse_shell_after(int commands);

  private:
    orca_test::TempDir dir_;
    std::string saved_path_;
};
