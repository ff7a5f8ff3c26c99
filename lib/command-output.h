// Reading what a command started with popen() prints (internal; not installed).
#pragma once

#include <cstdio>
#include <string>

namespace orca_command {

// Everything `pipe` gives until its end, as it came (no trimming). Reads only; the caller
// still pclose()s it. Empty for a null `pipe`.
std::string read_all(FILE* pipe);

}  // namespace orca_command
