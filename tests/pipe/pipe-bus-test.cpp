// The pipe bus library between a server and a client in one process, on temporary paths.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "fjord_pipe.h"
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
