// The library at the fixed paths of the simulated board's pipe bus: the camera bitrate as
// the camera pipe's info file states it, and the performance mode's command to the CPU
// monitor. The library carries its own pipe-bus client, so only the fixed paths reach it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "capture_output.h"
#include "fjord_pipe.h"
#include <orca-vtx/orca-vtx-helpers.h>

using orca_test::capture_output;
using orca_test::Printed;

namespace {

TEST(CameraBitrateOnTheBus, ReadsTheConfiguredBitrateOrFallsBack) {
    const std::string pipes[] = {"hires_camera", "plain_camera", "broken_camera"};
    const char* infos[] = {R"({"name": "hires_camera", "bps": 4500000})", "{}", R"({"bps": 45)"};
    mkdir("/run/fjp", 0755);
    for (int i = 0; i < 3; ++i) {
        mkdir(("/run/fjp/" + pipes[i]).c_str(), 0755);
        std::ofstream("/run/fjp/" + pipes[i] + "/info") << infos[i];
    }
    Printed printed = capture_output([] {
        EXPECT_EQ(fetch_camera_bitrate("hires_camera"), 4500000);
        EXPECT_EQ(fetch_camera_bitrate("plain_camera"), 1000000);  // silently: bps is optional
        EXPECT_EQ(fetch_camera_bitrate("broken_camera"), 1000000);
        EXPECT_EQ(fetch_camera_bitrate("no_camera"), 1000000);
    });
    const std::string fallback =
        "failed to fetch bitrate from source_parent json array. Defaulting to 1000000 bps.\n";
    EXPECT_EQ(printed.out, fallback + fallback);
}

struct Commands {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::string> seen;
};

void on_command(int, char* command, int bytes, void* context) {
    auto* commands = static_cast<Commands*>(context);
    std::lock_guard<std::mutex> lock(commands->mutex);
    commands->seen.emplace_back(command, bytes);
    commands->arrived.notify_all();
}

TEST(PerfModeOnTheBus, AsksTheCpuMonitorPipeWhenItRuns) {
    mkdir("/run/fjp", 0755);
    Printed refused = capture_output([] { EXPECT_LT(set_perf_mode(), 0); });
    EXPECT_NE(refused.err.find("no server publishes pipe /run/fjp/cpu_stats2"), std::string::npos)
        << refused.err;

    Commands commands;
    ASSERT_EQ(pipe_server_create(0, "cpu_stats2", "cpu_stats_t"), 0);
    pipe_server_set_control_cb(0, on_command, &commands);
    EXPECT_EQ(set_perf_mode(), 0);
    std::unique_lock<std::mutex> lock(commands.mutex);
    commands.arrived.wait_for(lock, std::chrono::seconds(5),
                              [&] { return !commands.seen.empty(); });
    EXPECT_EQ(commands.seen, std::vector<std::string>{"set_cpu_mode_perf_with_pitmode"});
    lock.unlock();
    pipe_server_close(0);
}

}  // namespace
