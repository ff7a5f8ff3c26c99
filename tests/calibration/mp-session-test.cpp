// The MP session against small stand-in scripts at the sandboxed /usr/bin/rtw_mp_test.sh:
// line reading, answer matching, waits on the virtual clock, and the stop sequence.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "board-sim.h"
#include "mp_session.h"
#include "run_process.h"

namespace {

class MpSessionTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(board_sim::active()) << "run under libboard-sim.so"; }
    void TearDown() override { mp_stop(); }

    // Installs `body` as the script, after the start marker, and starts the session.
    void start(const std::string& body) {
        FILE* script = fopen(kMpScriptPath, "w");  // the sandboxed path
        ASSERT_NE(script, nullptr);
        fprintf(script, "echo 'continuous TX paused, freq and mcs set'\n%s\n", body.c_str());
        fclose(script);
        ASSERT_EQ(mp_start(5180, 0), 0);
        ASSERT_EQ(g_calibration_tx, &g_mp_tx);
    }
};

TEST_F(MpSessionTest, LinesAreSplitAndPartialLinesWaitForTheirEnd) {
    start("printf 'one\\ntwo\\npar'; read go; printf 'tial\\r\\n'; read done");
    std::string line;
    ASSERT_TRUE(mp_read_line(&line, 1000));
    EXPECT_EQ(line, "one");
    ASSERT_TRUE(mp_read_line(&line, 1000));
    EXPECT_EQ(line, "two");

    const uint64_t before = board_sim::wait_time_ns();
    EXPECT_FALSE(mp_read_line(&line, 50));
    EXPECT_GE(board_sim::wait_time_ns() - before, 49000000u);

    ASSERT_EQ(write(g_mp_in, "go\n", 3), 3);
    ASSERT_TRUE(mp_read_line(&line, 1000));
    EXPECT_EQ(line, "partial\r");
}

TEST_F(MpSessionTest, AnswersCountByTheirFirstLetters) {
    start(R"(while read command value; do
  echo "$command $value" >> /data/mp-commands
  case "$command" in
    okay) echo OKAY ;;
    errno) echo 'ERRNO 5' ;;
    lower) echo ok; echo progress; echo OK ;;
    *) echo OK ;;
  esac
done)");
    testing::internal::CaptureStdout();
    EXPECT_EQ(mp_command("okay"), 0);
    EXPECT_EQ(mp_command("errno"), -1);
    EXPECT_EQ(mp_command("lower"), 0);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[mp] OKAY\n[mp] ERRNO 5\n[mp] ok\n[mp] progress\n[mp] OK\n");

    mp_stop();
    EXPECT_EQ(g_mp_pid, -1);
    EXPECT_EQ(orca_test::read_file(board_sim::sandbox_path("/data/mp-commands")),
              "okay \nerrno \nlower \nquit \n");

    testing::internal::CaptureStderr();
    EXPECT_EQ(mp_tx_off(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[mp] cannot send 'pause': MP session not running\n");
    mp_stop();  // a second stop finds nothing to do
    EXPECT_EQ(g_mp_pid, -1);
}

}  // namespace
