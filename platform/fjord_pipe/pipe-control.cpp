// Control commands: a one-shot connection to a pipe's control socket that carries one
// command and waits for the server's answer.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "fjord_pipe.h"
#include "pipe-paths.h"

namespace {

// A live server answers at once; this only bounds a server that hangs.
constexpr int kAnswerTimeoutMs = 2000;

}  // namespace

extern "C" int pipe_send_control_cmd(const char* name, const char* command) {
    if (command == nullptr || command[0] == '\0' || strlen(command) > PIPE_MAX_CONTROL_CMD_BYTES) {
        fprintf(stderr, "ERROR in pipe_send_control_cmd: command must be 1 to %d bytes\n",
                PIPE_MAX_CONTROL_CMD_BYTES);
        return PIPE_ERROR_INVALID_ARG;
    }
    std::string dir;
    int result = fjord_pipe::resolve_pipe_dir("pipe_send_control_cmd", name, &dir);
    if (result < 0)
        return result;

    sockaddr_un address;
    const socklen_t length = fjord_pipe::socket_address(dir, fjord_pipe::kControlSocket, &address);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        perror("ERROR in pipe_send_control_cmd: socket");
        return PIPE_ERROR_OTHER;
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        fprintf(stderr, "ERROR in pipe_send_control_cmd: no server publishes pipe %s\n",
                dir.c_str());
        close(fd);
        return PIPE_ERROR_NO_SERVER;
    }
    const size_t size = strlen(command);
    if (send(fd, command, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) {
        fprintf(stderr, "ERROR in pipe_send_control_cmd: sending to pipe %s: %s\n", dir.c_str(),
                strerror(errno));
        close(fd);
        return PIPE_ERROR_OTHER;
    }
    char answer = 0;
    ssize_t n = 0;
    if (fjord_pipe::wait_readable(fd, kAnswerTimeoutMs))
        n = recv(fd, &answer, 1, MSG_DONTWAIT);
    else
        n = -2;
    close(fd);
    if (n == -2) {
        fprintf(stderr, "ERROR in pipe_send_control_cmd: pipe %s did not answer\n", dir.c_str());
        return PIPE_ERROR_TIMEOUT;
    }
    if (n != 1) {
        fprintf(stderr, "ERROR in pipe_send_control_cmd: pipe %s closed without an answer\n",
                dir.c_str());
        return PIPE_ERROR_OTHER;
    }
    if (answer != '1') {
        fprintf(stderr, "ERROR in pipe_send_control_cmd: pipe %s takes no control commands\n",
                dir.c_str());
        return PIPE_ERROR_NO_CONTROL;
    }
    return 0;
}
