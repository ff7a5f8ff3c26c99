// Pipe name resolution and socket addresses.
#include "pipe-paths.h"

#include <poll.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "fjord_pipe.h"

namespace fjord_pipe {

namespace {

std::mutex g_bus_dir_mutex;
std::string g_bus_dir = PIPE_BUS_DIR;  // always ends in '/'

std::string bus_dir() {
    std::lock_guard<std::mutex> lock(g_bus_dir_mutex);
    return g_bus_dir;
}

}  // namespace

int resolve_pipe_dir(const char* caller, const char* name, std::string* dir) {
    if (name == nullptr || name[0] == '\0') {
        fprintf(stderr, "ERROR in %s: empty pipe name\n", caller);
        return PIPE_ERROR_INVALID_ARG;
    }
    std::string text = name;
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    if (text[0] == '/') {
        if (text.size() == 1) {
            fprintf(stderr, "ERROR in %s: \"/\" is not a pipe directory\n", caller);
            return PIPE_ERROR_INVALID_ARG;
        }
        *dir = text;
    } else {
        if (text.find('/') != std::string::npos || text == "." || text == "..") {
            fprintf(stderr, "ERROR in %s: bad pipe name \"%s\"\n", caller, name);
            return PIPE_ERROR_INVALID_ARG;
        }
        *dir = bus_dir() + text;
    }
    // The longest socket path in the directory must fit sun_path with its terminator.
    const size_t longest = dir->size() + 1 + strlen(kControlSocket);
    if (longest >= sizeof(sockaddr_un{}.sun_path)) {
        fprintf(stderr, "ERROR in %s: pipe path %s is too long (at most %zu bytes)\n", caller,
                dir->c_str(), sizeof(sockaddr_un{}.sun_path) - 2 - strlen(kControlSocket));
        return PIPE_ERROR_PATH_TOO_LONG;
    }
    return 0;
}

socklen_t socket_address(const std::string& dir, const char* leaf, sockaddr_un* address) {
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    snprintf(address->sun_path, sizeof address->sun_path, "%s/%s", dir.c_str(), leaf);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address->sun_path) + 1);
}

bool wait_readable(int fd, int timeout_ms) {
    pollfd p = {fd, POLLIN, 0};
    for (;;) {
        int ready = poll(&p, 1, timeout_ms);
        if (ready < 0 && errno == EINTR)
            continue;
        return ready > 0;
    }
}

}  // namespace fjord_pipe

extern "C" int pipe_bus_set_dir(const char* dir) {
    std::string text = dir == nullptr ? PIPE_BUS_DIR : dir;
    if (text.empty() || text[0] != '/') {
        fprintf(stderr, "ERROR in pipe_bus_set_dir: \"%s\" is not an absolute path\n",
                text.c_str());
        return PIPE_ERROR_INVALID_ARG;
    }
    if (text.back() != '/')
        text += '/';
    std::lock_guard<std::mutex> lock(fjord_pipe::g_bus_dir_mutex);
    fjord_pipe::g_bus_dir = text;
    return 0;
}
