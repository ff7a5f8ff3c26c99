// The pipe bus library between a server and a client in one process, on temporary paths.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "fjord_pipe.h"
#include "orca-common.h"
#include "run_process.h"

namespace {

// What a pipe's callbacks saw, in order: "connect", "disconnect" or "data:<bytes>".
class Events {
  public:
    void add(std::string event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(event));
        changed_.notify_all();
    }
    // Waits (at most five seconds) until `count` events have arrived; returns them all.
    std::vector<std::string> wait_for(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(5), [&] { return events_.size() >= count; });
        return events_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
};

void on_connect(int, void* events) {
    static_cast<Events*>(events)->add("connect");
}
void on_disconnect(int, void* events) {
    static_cast<Events*>(events)->add("disconnect");
}
void on_data(int, char* data, int bytes, void* events) {
    static_cast<Events*>(events)->add("data:" + std::string(data, static_cast<size_t>(bytes)));
}
void on_command(int, char* command, int, void* events) {
    static_cast<Events*>(events)->add(command);
}

constexpr int kChannel = 5;

class PipeBus : public ::testing::Test {
  protected:
    void SetUp() override {
        pipe_client_set_connect_cb(kChannel, on_connect, &events_);
        pipe_client_set_disconnect_cb(kChannel, on_disconnect, &events_);
        pipe_client_set_simple_helper_cb(kChannel, on_data, &events_);
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

TEST_F(PipeBus, ClientOpenFailsOnlyForBadChannelLongPathOrDoubleOpen) {
    EXPECT_EQ(pipe_client_open(-1, pipe_.c_str(), "t", 1, 64), PIPE_ERROR_INVALID_ARG);
    EXPECT_EQ(pipe_client_open(PIPE_CLIENT_MAX_CHANNELS, pipe_.c_str(), "t", 1, 64),
              PIPE_ERROR_INVALID_ARG);
    const std::string longest = "/" + std::string(98, 'p');  // with "/control": 107 bytes
    EXPECT_EQ(pipe_client_open(kChannel, (longest + "q").c_str(), "t", 1, 64),
              PIPE_ERROR_PATH_TOO_LONG);
    EXPECT_EQ(pipe_client_open(kChannel, longest.c_str(), "t", 1, 64), 0);
    EXPECT_EQ(pipe_client_open(kChannel, pipe_.c_str(), "t", 1, 64), PIPE_ERROR_CHANNEL_OPEN);
    pipe_client_close(kChannel);
    // No server yet: the open succeeds and the client waits for one.
    EXPECT_EQ(pipe_client_open(kChannel, (pipe_ + "/").c_str(), "t", 1, 64), 0);
}

TEST_F(PipeBus, RecordsArriveWholeAcrossServerRestarts) {
    ASSERT_EQ(pipe_client_open(kChannel, pipe_.c_str(), "t", 1, 100), 0);
    ASSERT_EQ(pipe_server_create(0, pipe_.c_str(), "status_t"), 0);
    EXPECT_EQ(events_.wait_for(1), std::vector<std::string>{"connect"});
    EXPECT_EQ(pipe_server_get_num_clients(0), 1);
    const std::string info = orca_test::read_file(pipe_ + "/info");
    EXPECT_NE(info.find("\"status_t\""), std::string::npos) << info;
    EXPECT_NE(info.find(std::to_string(getpid())), std::string::npos) << info;

    // A second server on a live pipe is refused and does not disturb the first.
    EXPECT_EQ(pipe_server_create(1, pipe_.c_str(), "status_t"), PIPE_ERROR_SERVER_RUNNING);

    write("a");
    write(std::string(101, 'x'));  // longer than the client's buffer: dropped
    write(std::string(100, 'b'));
    write("c1c2c3");
    pipe_server_close(0);
    struct stat st;
    EXPECT_NE(stat(pipe_.c_str(), &st), 0) << "a clean close removes the pipe directory";
    std::vector<std::string> expected = {"connect", "data:a", "data:" + std::string(100, 'b'),
                                         "data:c1c2c3", "disconnect"};
    EXPECT_EQ(events_.wait_for(5), expected);

    ASSERT_EQ(pipe_server_create(0, pipe_.c_str(), "status_t"), 0);
    EXPECT_EQ(events_.wait_for(6).back(), "connect");
    write("again");
    expected.insert(expected.end(), {"connect", "data:again"});
    EXPECT_EQ(events_.wait_for(7), expected);
}

TEST_F(PipeBus, ControlCommandsReachTheServer) {
    EXPECT_EQ(pipe_send_control_cmd(pipe_.c_str(), "stop"), PIPE_ERROR_NO_SERVER);
    ASSERT_EQ(pipe_server_create(0, pipe_.c_str(), "status_t"), 0);
    EXPECT_EQ(pipe_send_control_cmd(pipe_.c_str(), "stop"), PIPE_ERROR_NO_CONTROL);
    pipe_server_set_control_cb(0, on_command, &events_);
    EXPECT_EQ(pipe_send_control_cmd(pipe_.c_str(), "stop"), 0);
    EXPECT_EQ(pipe_send_control_cmd(pipe_.c_str(), ""), PIPE_ERROR_INVALID_ARG);
    EXPECT_EQ(events_.wait_for(1), std::vector<std::string>{"stop"});
}

TEST_F(PipeBus, SetPerfModeAsksTheCpuMonitor) {
    ASSERT_EQ(pipe_bus_set_dir(tmp_.path().c_str()), 0);
    EXPECT_LT(set_perf_mode(), 0);
    ASSERT_EQ(pipe_server_create(0, "cpu_stats2", "cpu_stats_t"), 0);
    pipe_server_set_control_cb(0, on_command, &events_);
    EXPECT_EQ(set_perf_mode(), 0);
    EXPECT_EQ(events_.wait_for(1), std::vector<std::string>{"set_cpu_mode_perf_with_pitmode"});
}
