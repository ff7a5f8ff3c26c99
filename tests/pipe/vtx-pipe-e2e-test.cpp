// The tool's pipe client and scripted publishers in separate processes on the simulated
// board's /run/fjp: a crash, a restart, garbage and batches on the way.
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>
#include <set>

#include "board_run.h"

namespace {

// The client in the background; the publishers one after the other, each exit status on
// standard error; then the client's own.
const char* const kScript = R"(client=$1 publisher=$2 pipe=/run/fjp/vtx_latency
"$client" 5999 &
"$publisher" $pipe wait-client record 5180 3 20 bad-magic 2412 7 50 crash
echo "publisher 1: $?" >&2
"$publisher" $pipe wait-client record 5745 5 30 batch 404 5200 2 40 batch 405 5500 4 50 flood 500
echo "publisher 2: $?" >&2
"$publisher" $pipe wait-client until-gone 5999 1 60
echo "publisher 3: $?" >&2
wait $!)";

TEST(VtxPipeEndToEnd, ClientFollowsThePublisherThroughCrashGarbageAndBatches) {
    // Every process of this board keeps real time: the publishers poll for their client.
    const orca_test::ProcessResult client =
        orca_test::run_on_board({"--no-publisher"},
                                {"env", "ORCA_SIM_REAL_TIME=1", "sh", "-c", kScript, "sh",
                                 PIPE_TEST_CLIENT, PIPE_TEST_PUBLISHER})
            .result;
    ASSERT_EQ(client.exit_status, 0) << client.out << client.err;
    // The crashed publisher's sockets are still there; the next one replaces them.
    for (const char* status : {"publisher 1: 137\n", "publisher 2: 0\n", "publisher 3: 0\n"})
        EXPECT_NE(client.err.find(status), std::string::npos) << client.err;

    // Whatever a publisher sent last stays in force after it has gone. A batch of 404 records
    // (32724 bytes) fits the client's read buffer, one of 405 (32805 bytes) does not.
    const std::string& out = client.out;
    const size_t gone1 = out.find(
        "Disconnected from VTX Latency pipe\n"
        "disconnected: vtx frequency=5180 mcs=3 power_index=20\n");
    const size_t gone2 = out.find(
        "Disconnected from VTX Latency pipe\n"
        "disconnected: vtx frequency=5200 mcs=2 power_index=40\n");
    EXPECT_EQ(out.find("Connected to VTX Latency pipe\n"), 0u) << out;
    EXPECT_NE(out.find("taken: vtx frequency=5180 mcs=3 power_index=20\n"), std::string::npos)
        << out;
    ASSERT_NE(gone1, std::string::npos) << out;
    ASSERT_NE(gone2, std::string::npos) << out;
    // Each publisher's records are taken after its own connection.
    const size_t connect2 = out.find("Connected to VTX Latency pipe\n", gone1);
    const size_t taken2 = out.find("taken: ", connect2);
    EXPECT_LT(gone1, connect2) << out;
    EXPECT_LT(connect2, taken2) << out;
    EXPECT_LT(taken2, gone2) << out;
    EXPECT_LT(gone2, out.find("taken: vtx frequency=5999 mcs=1 power_index=60\n")) << out;

    // Only values of good records that fit were ever taken.
    const std::set<std::string> good = {"5180 mcs=3 power_index=20", "5745 mcs=5 power_index=30",
                                        "5200 mcs=2 power_index=40", "5999 mcs=1 power_index=60"};
    const std::regex line(": vtx frequency=(.*)\n");
    for (auto it = std::sregex_iterator(out.begin(), out.end(), line); it != std::sregex_iterator();
         ++it)
        EXPECT_EQ(good.count((*it)[1]), 1u) << (*it)[0];
    EXPECT_NE(client.err.find("ERROR got magic number 305419896"), std::string::npos);
    EXPECT_NE(client.err.find("read partial packet"), std::string::npos);
}

}  // namespace
