// The tool's pipe client and scripted publishers in separate processes: a crash, a restart
// and garbage on the way.
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>
#include <set>
#include <thread>

#include "run_process.h"

using orca_test::ProcessResult;
using orca_test::run_process;

TEST(VtxPipeEndToEnd, ClientFollowsThePublisherThroughCrashAndGarbage) {
    orca_test::TempDir tmp;
    const std::string pipe = tmp.path() + "/vtx_latency";
    ProcessResult client;
    std::thread client_thread([&] { client = run_process({PIPE_TEST_CLIENT, pipe, "5999"}); });
    const auto first = run_process({PIPE_TEST_PUBLISHER, pipe, "wait-client", "record", "5180", "3",
                                    "20", "bad-magic", "2412", "7", "50", "crash"});
    EXPECT_EQ(first.exit_status, 128 + SIGKILL) << first.err;
    // The crashed publisher's sockets are still there; the next one replaces them.
    const auto second = run_process({PIPE_TEST_PUBLISHER, pipe, "wait-client", "record", "5745",
                                     "5", "30", "flood", "3000", "until-gone", "5999", "1", "60"});
    EXPECT_EQ(second.exit_status, 0) << second.err;
    client_thread.join();
    ASSERT_EQ(client.exit_status, 0) << client.out << client.err;

    // Each publisher's first record is taken after its own connection.
    const std::string& out = client.out;
    const size_t gone = out.find("Disconnected from VTX Latency pipe\n");
    const size_t connect2 = out.find("Connected to VTX Latency pipe\n", gone);
    const size_t taken2 = out.find("vtx frequency=5745 mcs=5 power_index=30\n");
    EXPECT_EQ(out.find("Connected to VTX Latency pipe\n"), 0u) << out;
    EXPECT_NE(out.find("vtx frequency=5180 mcs=3 power_index=20\n"), std::string::npos) << out;
    EXPECT_LT(gone, connect2) << out;
    EXPECT_LT(connect2, taken2) << out;
    EXPECT_LT(taken2, out.size()) << out;

    // Only values of good records were ever taken.
    const std::set<std::string> good = {"5180 mcs=3 power_index=20", "5745 mcs=5 power_index=30",
                                        "5999 mcs=1 power_index=60"};
    const std::regex line("vtx frequency=(.*)\n");
    for (auto it = std::sregex_iterator(out.begin(), out.end(), line); it != std::sregex_iterator();
         ++it)
        EXPECT_EQ(good.count((*it)[1]), 1u) << (*it)[0];
    EXPECT_NE(client.err.find("ERROR got magic number 305419896"), std::string::npos);
    EXPECT_NE(client.err.find("read partial packet"), std::string::npos);
}
