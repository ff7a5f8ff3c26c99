// Pipe bus server: publishes a pipe directory, accepts clients on its data socket, sends
// each record to every client, and takes control commands on its control socket.
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <linux/sockios.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

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

// Control connections waiting for their command; more are refused.
constexpr size_t kMaxPendingControl = 16;
// Room for a burst of records per client before they are dropped.
constexpr int kClientSendBuffer = 256 * 1024;
// Modes set explicitly, whatever the publisher's umask. Only the owner may open the lock: a
// reader holding an flock on it would keep a restarted publisher out. The sockets are for
// the owner's group; the info file says nothing secret.
constexpr mode_t kLockMode = 0600;
constexpr mode_t kSocketMode = 0660;
constexpr mode_t kInfoMode = 0644;
// With no descriptor left, a pending connection keeps the listening socket readable and
// every accept fails at once: the worker stops listening until a client leaves, or for
// this long.
constexpr int kAcceptPauseMs = 100;

bool out_of_descriptors(int error) {
    return error == EMFILE || error == ENFILE;
}

struct Client {
    int fd;
    bool dropping;  // warned about records lost since the client last caught up
};

struct ServerChannel {
    std::mutex mutex;  // guards clients, writable and the control callback
    std::vector<Client> clients;
    bool writable = false;  // between a finished create and the start of close
    pipe_server_control_cb control_cb = nullptr;
    void* control_context = nullptr;

    // Owned by create and close, under g_open_mutex; the worker only reads them.
    bool open = false;
    std::string dir;
    int lock_fd = -1;
    int data_fd = -1;
    int control_fd = -1;
    int wake_fd = -1;
    std::thread worker;
};

std::mutex g_open_mutex;
ServerChannel g_channels[PIPE_SERVER_MAX_CHANNELS];

bool valid_channel(const char* caller, int channel) {
    if (channel >= 0 && channel < PIPE_SERVER_MAX_CHANNELS)
        return true;
    fprintf(stderr, "ERROR in %s: channel %d out of bounds (0 to %d)\n", caller, channel,
            PIPE_SERVER_MAX_CHANNELS - 1);
    return false;
}

std::string file_in(const std::string& dir, const char* leaf) {
    return dir + "/" + leaf;
}

int make_dirs(const std::string& dir) {
    for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
        std::string part = dir.substr(0, slash);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            return -1;
        if (slash == std::string::npos)
            return 0;
    }
}

int listen_on(const std::string& dir, const char* leaf) {
    sockaddr_un address;
    socklen_t length = fjord_pipe::socket_address(dir, leaf, &address);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    // Nobody can connect before listen, so the mode is right before anyone can use it.
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        chmod(address.sun_path, kSocketMode) != 0 || listen(fd, 16) != 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

// Written to a temporary file and renamed, so that a reader never sees half of it.
int write_info_file(const std::string& dir, const char* type) {
    const size_t slash = dir.rfind('/');
    cJSON* info = cJSON_CreateObject();
    cJSON_AddStringToObject(info, "name", dir.substr(slash + 1).c_str());
    cJSON_AddStringToObject(info, "type", type != nullptr ? type : "unknown");
    cJSON_AddNumberToObject(info, "server_pid", getpid());
    cJSON_AddStringToObject(info, "data_socket", fjord_pipe::kDataSocket);
    cJSON_AddStringToObject(info, "control_socket", fjord_pipe::kControlSocket);
    char* text = cJSON_Print(info);
    cJSON_Delete(info);
    if (text == nullptr)
        return -1;
    const std::string final_path = file_in(dir, fjord_pipe::kInfoFile);
    const std::string temp_path = final_path + ".tmp";
    const int fd = open(temp_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kInfoMode);
    FILE* file = fd >= 0 && fchmod(fd, kInfoMode) == 0 ? fdopen(fd, "w") : nullptr;
    if (file == nullptr && fd >= 0)
        close(fd);
    bool ok = file != nullptr && fprintf(file, "%s\n", text) > 0;
    if (file != nullptr && fclose(file) != 0)
        ok = false;
    cJSON_free(text);
    if (ok && rename(temp_path.c_str(), final_path.c_str()) == 0)
        return 0;
    unlink(temp_path.c_str());
    return -1;
}

void remove_pipe_files(const std::string& dir) {
    unlink(file_in(dir, fjord_pipe::kDataSocket).c_str());
    unlink(file_in(dir, fjord_pipe::kControlSocket).c_str());
    unlink(file_in(dir, fjord_pipe::kInfoFile).c_str());
}

// False when no descriptor was left for the client, which then stays queued.
bool accept_client(ServerChannel& ch) {
    int fd = accept4(ch.data_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0)
        return !out_of_descriptors(errno);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kClientSendBuffer, sizeof kClientSendBuffer);
    // Counted and welcomed under one lock, so that no record can overtake the welcome.
    std::lock_guard<std::mutex> lock(ch.mutex);
    if (send(fd, fjord_pipe::kWelcome, fjord_pipe::kWelcomeBytes, MSG_DONTWAIT | MSG_NOSIGNAL) !=
        fjord_pipe::kWelcomeBytes) {
        close(fd);
        return true;
    }
    ch.clients.push_back({fd, false});
    return true;
}

void drop_client(ServerChannel& ch, int fd) {
    std::lock_guard<std::mutex> lock(ch.mutex);
    for (size_t i = 0; i < ch.clients.size(); ++i) {
        if (ch.clients[i].fd == fd) {
            ch.clients.erase(ch.clients.begin() + static_cast<long>(i));
            break;
        }
    }
    close(fd);
}

// Takes one command, hands it to the control callback and answers '1' when a callback
// took it, '0' when there is none.
void serve_control(int channel, ServerChannel& ch, int fd) {
    char command[PIPE_MAX_CONTROL_CMD_BYTES + 1];
    ssize_t n = recv(fd, command, PIPE_MAX_CONTROL_CMD_BYTES, MSG_DONTWAIT);
    if (n < 0 && errno == EAGAIN)
        return;
    if (n > 0) {
        command[n] = '\0';
        pipe_server_control_cb cb;
        void* context;
        {
            std::lock_guard<std::mutex> lock(ch.mutex);
            cb = ch.control_cb;
            context = ch.control_context;
        }
        if (cb != nullptr)
            cb(channel, command, static_cast<int>(n), context);
        const char answer = cb != nullptr ? '1' : '0';
        send(fd, &answer, 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    close(fd);
}

void run_worker(int channel) {
    ServerChannel& ch = g_channels[channel];
    std::vector<int> pending_control;
    std::vector<pollfd> fds;
    bool accept_paused = false;
    for (;;) {
        fds.clear();
        fds.push_back({ch.wake_fd, POLLIN, 0});
        // A negative descriptor is left out of the poll.
        fds.push_back({accept_paused ? -1 : ch.data_fd, POLLIN, 0});
        fds.push_back({accept_paused ? -1 : ch.control_fd, POLLIN, 0});
        for (int fd : pending_control)
            fds.push_back({fd, POLLIN, 0});
        const size_t first_client = fds.size();
        {
            std::lock_guard<std::mutex> lock(ch.mutex);
            for (const Client& client : ch.clients)
                fds.push_back({client.fd, POLLIN, 0});
        }
        const int ready = poll(fds.data(), fds.size(), accept_paused ? kAcceptPauseMs : -1);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            perror("ERROR in pipe server");
            return;
        }
        if (ready == 0) {
            accept_paused = false;
            continue;
        }
        if (fds[0].revents != 0)
            break;
        if (fds[1].revents != 0 && !accept_client(ch))
            accept_paused = true;
        std::vector<int> still_pending;
        for (size_t i = 3; i < first_client; ++i) {
            if (fds[i].revents != 0) {
                serve_control(channel, ch, fds[i].fd);
                accept_paused = false;
            } else {
                still_pending.push_back(fds[i].fd);
            }
        }
        pending_control.swap(still_pending);
        if (fds[2].revents != 0) {
            int fd = accept4(ch.control_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd >= 0 && pending_control.size() < kMaxPendingControl)
                pending_control.push_back(fd);
            else if (fd >= 0)
                close(fd);
            else if (out_of_descriptors(errno))
                accept_paused = true;
        }
        // Clients send nothing; readable means gone (or misbehaving, and then it is dropped).
        for (size_t i = first_client; i < fds.size(); ++i) {
            if (fds[i].revents != 0) {
                drop_client(ch, fds[i].fd);
                accept_paused = false;
            }
        }
    }
    for (int fd : pending_control)
        close(fd);
}

void close_fd(int* fd) {
    if (*fd >= 0)
        close(*fd);
    *fd = -1;
}

// Undoes whatever create got done; g_open_mutex is held.
void release(ServerChannel& ch) {
    if (!ch.dir.empty() && ch.lock_fd >= 0) {
        remove_pipe_files(ch.dir);
        unlink(file_in(ch.dir, fjord_pipe::kLockFile).c_str());
        rmdir(ch.dir.c_str());
    }
    close_fd(&ch.data_fd);
    close_fd(&ch.control_fd);
    close_fd(&ch.wake_fd);
    close_fd(&ch.lock_fd);
    ch.dir.clear();
}

int fail_create(ServerChannel& ch, const char* what) {
    fprintf(stderr, "ERROR in pipe_server_create: %s for pipe %s: %s\n", what, ch.dir.c_str(),
            strerror(errno));
    release(ch);
    return PIPE_ERROR_OTHER;
}

}  // namespace

extern "C" {

int pipe_server_create(int channel, const char* name, const char* type) {
    if (!valid_channel("pipe_server_create", channel))
        return PIPE_ERROR_INVALID_ARG;
    std::string dir;
    int result = fjord_pipe::resolve_pipe_dir("pipe_server_create", name, &dir);
    if (result < 0)
        return result;

    std::lock_guard<std::mutex> lock(g_open_mutex);
    ServerChannel& ch = g_channels[channel];
    if (ch.open) {
        fprintf(stderr, "ERROR in pipe_server_create: channel %d is already open\n", channel);
        return PIPE_ERROR_CHANNEL_OPEN;
    }
    ch.dir = dir;
    if (make_dirs(dir) != 0) {
        fprintf(stderr, "ERROR in pipe_server_create: cannot make %s: %s\n", dir.c_str(),
                strerror(errno));
        ch.dir.clear();
        return PIPE_ERROR_OTHER;
    }
    // The lock is held for the server's life; the kernel drops it when the server dies, so
    // sockets left by a crashed server are known to be stale and can be replaced.
    // A lock left by an older server may carry a wider mode; it is narrowed here.
    int lock_fd =
        open(file_in(dir, fjord_pipe::kLockFile).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kLockMode);
    if (lock_fd >= 0 && fchmod(lock_fd, kLockMode) != 0) {
        close(lock_fd);
        lock_fd = -1;
    }
    if (lock_fd < 0) {
        fprintf(stderr, "ERROR in pipe_server_create: cannot open the lock of %s: %s\n",
                dir.c_str(), strerror(errno));
        ch.dir.clear();
        return PIPE_ERROR_OTHER;
    }
    if (flock(lock_fd, LOCK_EX | LOCK_NB) != 0) {
        fprintf(stderr, "ERROR in pipe_server_create: pipe %s is already published\n", dir.c_str());
        close(lock_fd);
        ch.dir.clear();
        return PIPE_ERROR_SERVER_RUNNING;
    }
    ch.lock_fd = lock_fd;
    remove_pipe_files(dir);
    ch.data_fd = listen_on(dir, fjord_pipe::kDataSocket);
    if (ch.data_fd < 0)
        return fail_create(ch, "cannot listen on the data socket");
    ch.control_fd = listen_on(dir, fjord_pipe::kControlSocket);
    if (ch.control_fd < 0)
        return fail_create(ch, "cannot listen on the control socket");
    if (write_info_file(dir, type) != 0)
        return fail_create(ch, "cannot write the info file");
    ch.wake_fd = eventfd(0, EFD_CLOEXEC);
    if (ch.wake_fd < 0)
        return fail_create(ch, "cannot make the wake-up event");
    try {
        ch.worker = std::thread(run_worker, channel);
    } catch (const std::system_error&) {
        errno = EAGAIN;
        return fail_create(ch, "cannot start the server thread");
    }
    {
        std::lock_guard<std::mutex> clients_lock(ch.mutex);
        ch.writable = true;
    }
    ch.open = true;
    return 0;
}

int pipe_server_write(int channel, const void* data, int bytes) {
    if (!valid_channel("pipe_server_write", channel))
        return PIPE_ERROR_INVALID_ARG;
    if (data == nullptr || bytes < 0 || bytes > PIPE_MAX_RECORD_BYTES) {
        fprintf(stderr, "ERROR in pipe_server_write: bad record of %d bytes (0 to %d)\n", bytes,
                PIPE_MAX_RECORD_BYTES);
        return PIPE_ERROR_INVALID_ARG;
    }
    ServerChannel& ch = g_channels[channel];
    std::lock_guard<std::mutex> lock(ch.mutex);
    if (!ch.writable) {
        fprintf(stderr, "ERROR in pipe_server_write: channel %d is not open\n", channel);
        return PIPE_ERROR_NOT_OPEN;
    }
    // An empty message would read as end of stream on the client side.
    if (bytes == 0)
        return 0;
    for (Client& client : ch.clients) {
        // A run of drops ends only once the client has read everything queued for it: a
        // reader that frees room for one record at a time is still behind, and is not
        // warned again for every record.
        int queued = 0;
        if (client.dropping && ioctl(client.fd, SIOCOUTQ, &queued) == 0 && queued == 0)
            client.dropping = false;
        if (send(client.fd, data, static_cast<size_t>(bytes), MSG_DONTWAIT | MSG_NOSIGNAL) ==
            bytes) {
            continue;
        }
        if (errno == EAGAIN && !client.dropping) {
            // A slow reader loses records instead of stalling the publisher.
            fprintf(stderr, "WARNING: a client of pipe %s is not keeping up; dropping records\n",
                    ch.dir.c_str());
            client.dropping = true;
        }
        // Other errors mean the client is gone; the worker sees the hang-up and drops it.
    }
    return 0;
}

int pipe_server_get_num_clients(int channel) {
    if (!valid_channel("pipe_server_get_num_clients", channel))
        return PIPE_ERROR_INVALID_ARG;
    ServerChannel& ch = g_channels[channel];
    std::lock_guard<std::mutex> lock(ch.mutex);
    return static_cast<int>(ch.clients.size());
}

int pipe_server_set_control_cb(int channel, pipe_server_control_cb cb, void* context) {
    if (!valid_channel("pipe_server_set_control_cb", channel))
        return PIPE_ERROR_INVALID_ARG;
    ServerChannel& ch = g_channels[channel];
    std::lock_guard<std::mutex> lock(ch.mutex);
    ch.control_cb = cb;
    ch.control_context = context;
    return 0;
}

void pipe_server_close(int channel) {
    if (!valid_channel("pipe_server_close", channel))
        return;
    std::lock_guard<std::mutex> lock(g_open_mutex);
    ServerChannel& ch = g_channels[channel];
    if (!ch.open)
        return;
    if (ch.worker.get_id() == std::this_thread::get_id()) {
        fprintf(stderr, "ERROR in pipe_server_close: channel %d closed from its own callback\n",
                channel);
        return;
    }
    {
        std::lock_guard<std::mutex> clients_lock(ch.mutex);
        ch.writable = false;
    }
    const uint64_t one = 1;
    ssize_t ignored = write(ch.wake_fd, &one, sizeof one);
    (void)ignored;
    ch.worker.join();
    // The pipe disappears before its clients are let go, so that none of them reconnects to
    // the closing server.
    release(ch);
    {
        std::lock_guard<std::mutex> clients_lock(ch.mutex);
        for (const Client& client : ch.clients)
            close(client.fd);
        ch.clients.clear();
        ch.control_cb = nullptr;  // its context may not outlive the channel
    }
    ch.open = false;
}

void pipe_server_close_all(void) {
    for (int channel = 0; channel < PIPE_SERVER_MAX_CHANNELS; ++channel)
        pipe_server_close(channel);
}

}  // extern "C"
