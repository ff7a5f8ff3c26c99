// Where a pipe's files live: name resolution under the bus root, and the socket addresses
// inside a pipe directory. Internal to libfjord_pipe.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

namespace fjord_pipe {

// File names inside a pipe directory; kept short because sun_path holds 108 bytes.
constexpr const char* kDataSocket = "data";
constexpr const char* kControlSocket = "control";
constexpr const char* kInfoFile = "info";
constexpr const char* kLockFile = "lock";

// The server's first message on every data connection, sent once the client is counted:
// a client is connected only when it has seen it.
constexpr char kWelcome[] = "FJP1";
constexpr int kWelcomeBytes = 4;

// Resolves a bare pipe name (under the bus root) or an absolute path (used as is) to the
// pipe directory without a trailing slash. Returns 0 or PIPE_ERROR_INVALID_ARG /
// PIPE_ERROR_PATH_TOO_LONG, after a message naming `caller`.
int resolve_pipe_dir(const char* caller, const char* name, std::string* dir);

// The address of socket `leaf` in `dir`; resolve_pipe_dir has already made sure it fits.
socklen_t socket_address(const std::string& dir, const char* leaf, sockaddr_un* address);

// Waits up to `timeout_ms` (-1: for ever) for `fd` to become readable; true when it is.
bool wait_readable(int fd, int timeout_ms);

}  // namespace fjord_pipe
