#include "sandbox.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "board-physics.h"
#include "rf-model.h"
#include "shared-block.h"

namespace board_sim {

const char* const kSandboxedPrefixes[3] = {"/data", "/run/fjp", "/usr/bin/rtw_mp_test.sh"};

namespace {

int make_directories(const std::string& path) {
    for (size_t slash = 1; slash != std::string::npos;) {
        slash = path.find('/', slash + 1);
        const std::string part = path.substr(0, slash);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            std::fprintf(stderr, "board-sim: cannot create %s: %s\n", part.c_str(),
                         std::strerror(errno));
            return -1;
        }
    }
    return 0;
}

int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
    std::remove(path);
    return 0;
}

}  // namespace

int prepare_sandbox(const std::string& root, const BoardState& state) {
    for (const char* dir : {"/data/quillon/vtx", "/run/fjp", "/usr/bin", "/bin"}) {
        if (make_directories(root + dir) != 0)
            return -1;
    }
    // A sandbox directory may be reused; its clock and counters start afresh.
    unlink(shared_block_path(root).c_str());
    if (map_shared_block(root, true) == nullptr)
        return -1;
    BoardState initial = state;
    initial.output_dbm = output_dbm(state);
    if (has_physics(initial))
        anchor_physics(&initial, virtual_now_ns(root));
    if (save_state(state_file_path(root), initial) != 0)
        return -1;
    return write_conversion_tables(root + "/data/quillon/vtx", initial);
}

std::string command_log_path(const std::string& root) {
    return root + "/commands.log";
}

std::string mp_log_path(const std::string& root) {
    return root + "/mp.log";
}

int install_mp_script(const std::string& root, const std::string& mp_program) {
    const std::string path = root + kSandboxedPrefixes[2];
    FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        std::fprintf(stderr, "board-sim: cannot write %s: %s\n", path.c_str(),
                     std::strerror(errno));
        return -1;
    }
    // The tool runs it as "sh /usr/bin/rtw_mp_test.sh ...", as on the aircraft.
    std::fprintf(file, "#!/bin/sh\nexec '%s' \"$@\"\n", mp_program.c_str());
    if (std::fclose(file) != 0 || chmod(path.c_str(), 0755) != 0) {
        std::fprintf(stderr, "board-sim: cannot write %s: %s\n", path.c_str(),
                     std::strerror(errno));
        return -1;
    }
    return 0;
}

void append_raw(const std::string& path, const char* bytes, size_t length) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    // One write per line keeps lines of several writers whole (O_APPEND).
    [[maybe_unused]] const ssize_t written = write(fd, bytes, length);
    close(fd);
}

void append_line(const std::string& path, const std::string& line) {
    const std::string text = line + "\n";
    append_raw(path, text.data(), text.size());
}

void remove_tree(const std::string& root) {
    nftw(root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

}  // namespace board_sim
