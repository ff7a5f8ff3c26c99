// The pipe bus library between a server and a client in one process, on temporary paths.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "fjord_pipe.h"
#include "capture_output.h"
#include "run_process.h"

namespace {

// What a pipe's callbacks saw, in order: "connect", "disconnect", "data:<bytes>" or a
// control command.
struct Events {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> seen;
    // Waits (at most five seconds) until `count` events have arrived; returns them all.
    std::vector<std::string> wait_for(size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, std::chrono::seconds(5), [&] { return seen.size() >= count; });
        return seen;
    }
    static void add(void* events, std::string event) {
        auto* self = static_cast<Events*>(events);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->seen.push_back(std::move(event));
        self->changed.notify_all();
    }
};

void on_command(int, char* command, int, void* events) {
    Events::add(events, command);
}

constexpr int kChannel = 5;

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// A client of a pipe's data socket by hand, without the library's reader thread: it reads
// only when the test says so. -1 when the connection or the welcome failed.
int connect_raw(const std::string& pipe) {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (pipe + "/data").c_str(), sizeof address.sun_path - 1);
    char welcome[8];
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        recv(fd, welcome, sizeof welcome, 0) != 4) {
        close(fd);
        return -1;
    }
    return fd;
}

double cpu_seconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

class PipeBus : public ::testing::Test {
  protected:
    void SetUp() override {
        pipe_client_set_connect_cb(
            kChannel, [](int, void* events) { Events::add(events, "connect"); }, &events_);
        pipe_client_set_disconnect_cb(
            kChannel, [](int, void* events) { Events::add(events, "disconnect"); }, &events_);
        pipe_client_set_simple_helper_cb(
            kChannel,
            [](int, char* data, int bytes, void* events) {
                Events::add(events, "data:" + std::string(data, static_cast<size_t>(bytes)));
            },
            &events_);
    }
    void TearDown() override {
        pipe_client_close_all();
        pipe_server_close_all();
        pipe_bus_set_dir(nullptr);
    }
    void write(const std::string& record) {
        ASSERT_EQ(pipe_server_write(0, record.data(), static_cast<int>(record.size())), 0);
    }
    orca_test::TempDir tmp_;
    std::string pipe_ = tmp_.path() + "/status";
    Events events_;
};

}  // namespace

TEST_F(PipeBus, RecordsArriveWholeWhileTheServerRuns) {
    EXPECT_EQ(pipe_client_open(-1, pipe_.c_str(), "t", 1, 64), PIPE_ERROR_INVALID_ARG);
    EXPECT_EQ(pipe_client_open(kChannel, pipe_.c_str(), "t", 1, 0), PIPE_ERROR_INVALID_ARG);
    const std::string longest = "/" + std::string(98, 'p');  // with "/control": 107 bytes
    EXPECT_EQ(pipe_client_open(kChannel, (longest + "q").c_str(), "t", 1, 64),
              PIPE_ERROR_PATH_TOO_LONG);
    EXPECT_EQ(pipe_client_open(kChannel + 1, longest.c_str(), "t", 1, 64), 0);

    // No server yet: the open succeeds and the client waits for one.
    ASSERT_EQ(pipe_client_open(kChannel, pipe_.c_str(), "t", 1, 100), 0);
    ASSERT_EQ(pipe_server_create(0, pipe_.c_str(), "status_t"), 0);
    EXPECT_EQ(events_.wait_for(1), std::vector<std::string>{"connect"});
    EXPECT_EQ(pipe_server_get_num_clients(0), 1);
    EXPECT_NE(orca_test::read_file(pipe_ + "/info").find("\"status_t\""), std::string::npos);
    // A second server on a live pipe is refused and does not disturb the first.
    EXPECT_EQ(pipe_server_create(1, pipe_.c_str(), "status_t"), PIPE_ERROR_SERVER_RUNNING);

    write("a");
    write(std::string(101, 'x'));  // longer than the client's buffer: dropped
    write(std::string(100, 'b'));
    write("c1c2c3");
    pipe_server_close(0);
    struct stat st;
    EXPECT_NE(stat(pipe_.c_str(), &st), 0) << "a clean close removes the pipe directory";
    EXPECT_EQ(events_.wait_for(5),
              (std::vector<std::string>{"connect", "data:a", "data:" + std::string(100, 'b'),
                                        "data:c1c2c3", "disconnect"}));
}

TEST_F(PipeBus, ControlCommandsReachTheServer) {
    EXPECT_EQ(pipe_send_control_cmd(pipe_.c_str(), "stop"), PIPE_ERROR_NO_SERVER);
    ASSERT_EQ(pipe_server_create(0, pipe_.c_str(), "status_t"), 0);
    EXPECT_EQ(pipe_send_control_cmd(pipe_.c_str(), "stop"), PIPE_ERROR_NO_CONTROL);
    pipe_server_set_control_cb(0, on_command, &events_);
    EXPECT_EQ(pipe_send_control_cmd(pipe_.c_str(), "stop"), 0);
    EXPECT_EQ(pipe_send_control_cmd(pipe_.c_str(), ""), PIPE_ERROR_INVALID_ARG);
    EXPECT_EQ(events_.wait_for(1), (std::vector<std::string>{"stop"}));
}

TEST_F(PipeBus, CloseAllClosesEveryChannel) {
    for (int channel = 0; channel < PIPE_CLIENT_MAX_CHANNELS; ++channel)
        ASSERT_EQ(pipe_client_open(channel, pipe_.c_str(), "t", 1, 64), 0) << channel;
    pipe_client_close_all();
    // A channel still open would refuse to open again.
    for (int channel = 0; channel < PIPE_CLIENT_MAX_CHANNELS; ++channel)
        EXPECT_EQ(pipe_client_open(channel, pipe_.c_str(), "t", 1, 64), 0) << channel;
}

TEST_F(PipeBus, PipeFilesHaveFixedModesWhateverTheUmask) {
    const struct {
        const char* leaf;
        mode_t mode;
    } kFiles[] = {{"lock", 0600}, {"data", 0660}, {"control", 0660}, {"info", 0644}};
    for (const mode_t mask : {mode_t{0}, mode_t{077}}) {
        SCOPED_TRACE(mask);
        const mode_t before = umask(mask);
        const int created = pipe_server_create(0, pipe_.c_str(), "status_t");
        umask(before);
        ASSERT_EQ(created, 0);
        for (const auto& file : kFiles) {
            struct stat st {};
            ASSERT_EQ(stat((pipe_ + "/" + file.leaf).c_str(), &st), 0) << file.leaf;
            EXPECT_EQ(st.st_mode & 07777, file.mode) << file.leaf;
        }
        pipe_server_close(0);
    }

    // Another user cannot open the lock, and so cannot hold a restarted publisher out.
    if (geteuid() != 0)
        return;  // no other user to become; the modes above say it
    ASSERT_EQ(chmod(tmp_.path().c_str(), 0755), 0);
    ASSERT_EQ(pipe_server_create(0, pipe_.c_str(), "status_t"), 0);
    const std::string lock = pipe_ + "/lock";
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0 || access(pipe_.c_str(), X_OK) != 0)
            _exit(2);  // the temporary directory's parents keep that user out
        const int fd = open(lock.c_str(), O_RDONLY);
        _exit(fd < 0 && errno == EACCES ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) != 2) {
        EXPECT_EQ(WEXITSTATUS(status), 0) << "another user opened the lock";
    }
}

TEST_F(PipeBus, ASlowReaderIsWarnedOncePerRunOfDrops) {
    ASSERT_EQ(pipe_server_create(0, pipe_.c_str(), "status_t"), 0);
    const int reader = connect_raw(pipe_);
    ASSERT_GE(reader, 0);
    const std::string record(1000, 'r');
    char buffer[2000];
    const auto fill_and_trickle = [&] {
        for (int i = 0; i < 1000; ++i)  // far more than the client's socket holds
            write(record);
        // The reader frees room for one record at a time: behind all along.
        for (int i = 0; i < 50; ++i) {
            ASSERT_EQ(recv(reader, buffer, sizeof buffer, 0), 1000);
            write(record);
            write(record);
        }
    };
    const std::string warning = "not keeping up";
    EXPECT_EQ(count(orca_test::capture_output(fill_and_trickle).err, warning), 1u);

    // Once it has read everything, the next run of drops is warned about again.
    while (recv(reader, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
    }
    EXPECT_EQ(count(orca_test::capture_output(fill_and_trickle).err, warning), 1u);
    close(reader);
}

TEST_F(PipeBus, ServerWithoutDescriptorsWaitsForAClientToLeave) {
    ASSERT_EQ(pipe_server_create(0, pipe_.c_str(), "status_t"), 0);
    const int first = connect_raw(pipe_);
    ASSERT_GE(first, 0);
    const int waiting = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_GE(waiting, 0);

    // Use up every descriptor the process may have.
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit low = before;
    low.rlim_cur = static_cast<rlim_t>(waiting) + 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> spent;
    for (int fd = dup(0); fd >= 0; fd = dup(0))
        spent.push_back(fd);

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (pipe_ + "/data").c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(connect(waiting, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

    // The queued connection cannot be accepted: the worker must wait, not spin on it. The
    // test keeps one core busy for a tenth of a second of its own time; a spinning worker
    // burns about as much again.
    const double main_start = cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
    const double process_start = cpu_seconds(CLOCK_PROCESS_CPUTIME_ID);
    volatile unsigned long work = 0;
    while (cpu_seconds(CLOCK_THREAD_CPUTIME_ID) - main_start < 0.1)
        for (int i = 0; i < 10000; ++i)
            work = work + 1;
    const double main_spent = cpu_seconds(CLOCK_THREAD_CPUTIME_ID) - main_start;
    const double others_spent = cpu_seconds(CLOCK_PROCESS_CPUTIME_ID) - process_start - main_spent;
    EXPECT_LT(others_spent, main_spent / 5) << "the server's worker spun";

    // A client leaving frees a descriptor, and the waiting one is taken in.
    for (int fd : spent)
        close(fd);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    close(first);
    const timeval limit{5, 0};  // a lost client fails the test instead of hanging it
    setsockopt(waiting, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char welcome[8];
    EXPECT_EQ(recv(waiting, welcome, sizeof welcome, 0), 4);
    close(waiting);
}
