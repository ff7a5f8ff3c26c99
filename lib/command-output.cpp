#include "command-output.h"

namespace orca_command {

std::string read_all(FILE* pipe) {
    std::string text;
    if (pipe == nullptr)
        return text;
    char buffer[512];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        text.append(buffer, n);
    return text;
}

}  // namespace orca_command
