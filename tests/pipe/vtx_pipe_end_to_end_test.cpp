// The tool's pipe client and publishers in separate processes: restarts, crashes, garbage,
// and the simulated service's publisher.
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>
#include <set>
#include <thread>

#include "run_process.h"

using orca_test::ProcessResult;
using orca_test::run_process;

namespace {

// Runs the tool's callbacks on `pipe` until they take `stop_frequency`, while `publish`
// runs the publishers; returns what the client showed.
template <typename Publish>
ProcessResult follow(const std::string& pipe, const char* stop_frequency, Publish publish) {
    ProcessResult client;
    std::thread client_thread([&] {
        client = run_process({PIPE_TEST_CLIENT, pipe, stop_frequency});
    });
    publish();
    client_thread.join();
    return client;
}

}  // namespace

TEST(VtxPipeEndToEnd, ClientFollowsThePublisherThroughCrashAndGarbage) {
    orca_test::TempDir tmp;
    const std::string pipe = tmp.path() + "/vtx_latency";
    const ProcessResult client = follow(pipe, "5999", [&] {
        const auto first =
            run_process({PIPE_TEST_PUBLISHER, pipe, "wait-client", "record", "5180", "3", "20",
                         "partial", "40", "bad-magic", "2412", "7", "50", "crash"});
        EXPECT_EQ(first.exit_status, 128 + SIGKILL) << first.err;
        // The crashed publisher's sockets are still there; the next one replaces them.
        const auto second =
            run_process({PIPE_TEST_PUBLISHER, pipe, "wait-client", "record", "5745", "5", "30",
                         "flood", "3000", "until-gone", "5999", "1", "60"});
        EXPECT_EQ(second.exit_status, 0) << second.err;
    });
    ASSERT_EQ(client.exit_status, 0) << client.out << client.err;

    const std::string& out = client.out;
    const size_t connect1 = out.find("Connected to VTX Latency pipe\n");
    const size_t disconnect = out.find("Disconnected from VTX Latency pipe\n");
    const size_t connect2 = out.find("Connected to VTX Latency pipe\n", connect1 + 1);
    ASSERT_NE(connect2, std::string::npos) << out;
    EXPECT_LT(connect1, disconnect);
    EXPECT_LT(disconnect, connect2);
    EXPECT_GT(out.find("vtx frequency=5180 mcs=3 power_index=20\n"), connect1) << out;
    EXPECT_GT(out.find("vtx frequency=5745 mcs=5 power_index=30\n"), connect2) << out;

    // Only values of good records were ever taken.
    const std::set<std::string> good = {"5180 mcs=3 power_index=20", "5745 mcs=5 power_index=30",
                                        "5999 mcs=1 power_index=60"};
    const std::regex line("vtx frequency=(.*)\n");
    for (auto it = std::sregex_iterator(out.begin(), out.end(), line); it != std::sregex_iterator();
         ++it)
        EXPECT_EQ(good.count((*it)[1]), 1u) << (*it)[0];
    EXPECT_NE(client.err.find("read 40 bytes, but it should be a multiple of 81"),
              std::string::npos);
    EXPECT_NE(client.err.find("ERROR got magic number 305419896"), std::string::npos);
}

TEST(SimVtxPublisher, PublishesTheBoardStateFile) {
    const struct {
        const char* state;
        const char* stop_frequency;
        const char* shown;
    } cases[] = {
        {"tx_on=1\nfrequency_mhz=2437\nmcs=4\npower_index=37\n", "2437",
         "vtx frequency=2437 mcs=4 power_index=37\n"},
        // Missing or broken keys fall back to the defaults.
        {"mcs=6\npower_index=not-a-number\n", "5800", "vtx frequency=5800 mcs=6 power_index=1\n"},
    };
    for (const auto& c : cases) {
        orca_test::TempDir tmp;
        const std::string pipe = tmp.path() + "/vtx_latency";
        const std::string state = tmp.write_file("board-state", c.state);
        const ProcessResult client = follow(pipe, c.stop_frequency, [&] {
            const auto publisher = run_process({SIM_VTX_PUBLISHER, "--state", state, "--pipe", pipe,
                                                "--period-ms", "1", "--count", "1"});
            EXPECT_EQ(publisher.exit_status, 0) << publisher.err;
        });
        EXPECT_NE(client.out.find(c.shown), std::string::npos) << client.out;
    }
    const auto bad = run_process({SIM_VTX_PUBLISHER, "--state", "x", "--period-ms", "0"});
    EXPECT_EQ(bad.exit_status, 1);
    EXPECT_NE(bad.err.find("Error: --period-ms takes 1 to 60000"), std::string::npos);
}
