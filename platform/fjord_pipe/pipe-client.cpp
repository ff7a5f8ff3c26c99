// Pipe bus client: one reader thread per open channel connects to the pipe's data socket,
// hands every record to the simple-helper callback and reconnects while the server comes
// and goes.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "fjord_pipe.h"
#include "pipe-paths.h"

namespace {

// How often a client without a server looks for one again.
constexpr int kReconnectIntervalMs = 100;
constexpr int kMaxReadBuffer = 16 * 1024 * 1024;

struct ClientChannel {
    std::mutex callback_mutex;  // the reader thread and the setters share the callbacks
    pipe_client_connect_cb connect_cb = nullptr;
    void* connect_context = nullptr;
    pipe_client_disconnect_cb disconnect_cb = nullptr;
    void* disconnect_context = nullptr;
    pipe_client_simple_cb simple_cb = nullptr;
    void* simple_context = nullptr;

    // Owned by open and close, under g_open_mutex.
    bool open = false;
    int wake_fd = -1;
    std::thread reader;
};

std::mutex g_open_mutex;
ClientChannel g_channels[PIPE_CLIENT_MAX_CHANNELS];

bool valid_channel(const char* caller, int channel) {
    if (channel >= 0 && channel < PIPE_CLIENT_MAX_CHANNELS)
        return true;
    fprintf(stderr, "ERROR in %s: channel %d out of bounds (0 to %d)\n", caller, channel,
            PIPE_CLIENT_MAX_CHANNELS - 1);
    return false;
}

void notify_connect(int channel) {
    ClientChannel& ch = g_channels[channel];
    pipe_client_connect_cb cb;
    void* context;
    {
        std::lock_guard<std::mutex> lock(ch.callback_mutex);
        cb = ch.connect_cb;
        context = ch.connect_context;
    }
    if (cb != nullptr)
        cb(channel, context);
}

void notify_disconnect(int channel) {
    ClientChannel& ch = g_channels[channel];
    pipe_client_disconnect_cb cb;
    void* context;
    {
        std::lock_guard<std::mutex> lock(ch.callback_mutex);
        cb = ch.disconnect_cb;
        context = ch.disconnect_context;
    }
    if (cb != nullptr)
        cb(channel, context);
}

void deliver(int channel, char* data, int bytes) {
    ClientChannel& ch = g_channels[channel];
    pipe_client_simple_cb cb;
    void* context;
    {
        std::lock_guard<std::mutex> lock(ch.callback_mutex);
        cb = ch.simple_cb;
        context = ch.simple_context;
    }
    if (cb != nullptr)
        cb(channel, data, bytes, context);
}

int connect_to_server(const sockaddr_un& address, socklen_t length) {
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

enum class ReadEnd { kNeverConnected, kServerGone, kClosing };

// Reads records until the server goes away or the channel is being closed. The connect
// callback runs on the server's welcome, so that every record written after it arrives.
ReadEnd read_records(int channel, int fd, int wake_fd, std::vector<char>* buffer,
                     const std::string& client_name) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {wake_fd, POLLIN, 0}};
    bool welcomed = false;
    for (;;) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return welcomed ? ReadEnd::kServerGone : ReadEnd::kNeverConnected;
        }
        if (fds[1].revents != 0)
            return ReadEnd::kClosing;
        if (fds[0].revents == 0)
            continue;
        iovec iov = {buffer->data(), buffer->size()};
        msghdr message = {};
        message.msg_iov = &iov;
        message.msg_iovlen = 1;
        ssize_t n = recvmsg(fd, &message, MSG_DONTWAIT);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0)
            return welcomed ? ReadEnd::kServerGone : ReadEnd::kNeverConnected;
        if (!welcomed) {
            if (n != fjord_pipe::kWelcomeBytes ||
                memcmp(buffer->data(), fjord_pipe::kWelcome, fjord_pipe::kWelcomeBytes) != 0) {
                fprintf(stderr, "ERROR in pipe client %s: the server did not say welcome\n",
                        client_name.c_str());
                return ReadEnd::kNeverConnected;
            }
            welcomed = true;
            notify_connect(channel);
            continue;
        }
        if (message.msg_flags & MSG_TRUNC) {
            fprintf(stderr,
                    "ERROR in pipe client %s: dropped a record longer than its %zu-byte buffer\n",
                    client_name.c_str(), buffer->size());
            continue;
        }
        deliver(channel, buffer->data(), static_cast<int>(n));
    }
}

void run_reader(int channel, const std::string& dir, const std::string& client_name, int wake_fd,
                int buf_len) {
    sockaddr_un address;
    const socklen_t length = fjord_pipe::socket_address(dir, fjord_pipe::kDataSocket, &address);
    // Room for the welcome even when the records are smaller.
    std::vector<char> buffer(static_cast<size_t>(std::max(buf_len, fjord_pipe::kWelcomeBytes)));
    for (;;) {
        int fd = connect_to_server(address, length);
        ReadEnd end = ReadEnd::kNeverConnected;
        if (fd >= 0) {
            end = read_records(channel, fd, wake_fd, &buffer, client_name);
            close(fd);
        }
        if (end == ReadEnd::kClosing)
            return;
        if (end == ReadEnd::kServerGone) {
            notify_disconnect(channel);
        } else if (fjord_pipe::wait_readable(wake_fd, kReconnectIntervalMs)) {
            return;
        }
    }
}

}  // namespace

extern "C" {

int pipe_client_set_connect_cb(int channel, pipe_client_connect_cb cb, void* context) {
    if (!valid_channel("pipe_client_set_connect_cb", channel))
        return PIPE_ERROR_INVALID_ARG;
    ClientChannel& ch = g_channels[channel];
    std::lock_guard<std::mutex> lock(ch.callback_mutex);
    ch.connect_cb = cb;
    ch.connect_context = context;
    return 0;
}

int pipe_client_set_disconnect_cb(int channel, pipe_client_disconnect_cb cb, void* context) {
    if (!valid_channel("pipe_client_set_disconnect_cb", channel))
        return PIPE_ERROR_INVALID_ARG;
    ClientChannel& ch = g_channels[channel];
    std::lock_guard<std::mutex> lock(ch.callback_mutex);
    ch.disconnect_cb = cb;
    ch.disconnect_context = context;
    return 0;
}

int pipe_client_set_simple_helper_cb(int channel, pipe_client_simple_cb cb, void* context) {
    if (!valid_channel("pipe_client_set_simple_helper_cb", channel))
        return PIPE_ERROR_INVALID_ARG;
    ClientChannel& ch = g_channels[channel];
    std::lock_guard<std::mutex> lock(ch.callback_mutex);
    ch.simple_cb = cb;
    ch.simple_context = context;
    return 0;
}

int pipe_client_open(int channel, const char* path, const char* client_name, int flags,
                     int buf_len) {
    // Every client reads through the simple helper; there is no other read mode.
    (void)flags;
    if (!valid_channel("pipe_client_open", channel))
        return PIPE_ERROR_INVALID_ARG;
    if (buf_len < 1 || buf_len > kMaxReadBuffer) {
        fprintf(stderr, "ERROR in pipe_client_open: read buffer of %d bytes (1 to %d)\n", buf_len,
                kMaxReadBuffer);
        return PIPE_ERROR_INVALID_ARG;
    }
    std::string dir;
    int result = fjord_pipe::resolve_pipe_dir("pipe_client_open", path, &dir);
    if (result < 0)
        return result;

    std::lock_guard<std::mutex> lock(g_open_mutex);
    ClientChannel& ch = g_channels[channel];
    if (ch.open) {
        fprintf(stderr, "ERROR in pipe_client_open: channel %d is already open\n", channel);
        return PIPE_ERROR_CHANNEL_OPEN;
    }
    int wake_fd = eventfd(0, EFD_CLOEXEC);
    if (wake_fd < 0) {
        perror("ERROR in pipe_client_open: eventfd");
        return PIPE_ERROR_OTHER;
    }
    try {
        ch.reader = std::thread(run_reader, channel, dir,
                                std::string(client_name != nullptr ? client_name : "unnamed"),
                                wake_fd, buf_len);
    } catch (const std::system_error& e) {
        fprintf(stderr, "ERROR in pipe_client_open: cannot start the reader thread: %s\n",
                e.what());
        close(wake_fd);
        return PIPE_ERROR_OTHER;
    }
    ch.wake_fd = wake_fd;
    ch.open = true;
    return 0;
}

void pipe_client_close(int channel) {
    if (!valid_channel("pipe_client_close", channel))
        return;
    std::lock_guard<std::mutex> lock(g_open_mutex);
    ClientChannel& ch = g_channels[channel];
    if (!ch.open)
        return;
    if (ch.reader.get_id() == std::this_thread::get_id()) {
        fprintf(stderr, "ERROR in pipe_client_close: channel %d closed from its own callback\n",
                channel);
        return;
    }
    const uint64_t one = 1;
    ssize_t ignored = write(ch.wake_fd, &one, sizeof one);
    (void)ignored;
    ch.reader.join();
    close(ch.wake_fd);
    ch.wake_fd = -1;
    ch.open = false;
    // The callbacks' contexts may not outlive the channel; a reopen sets them again.
    std::lock_guard<std::mutex> callback_lock(ch.callback_mutex);
    ch.connect_cb = nullptr;
    ch.disconnect_cb = nullptr;
    ch.simple_cb = nullptr;
}

void pipe_client_close_all(void) {
    for (int channel = 0; channel < PIPE_CLIENT_MAX_CHANNELS; ++channel)
        pipe_client_close(channel);
}

}  // extern "C"
