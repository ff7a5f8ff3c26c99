// run_process as the end-to-end tests of every area use it. In the arm64 build this runs under
// qemu-aarch64, where a program of the target machine cannot be started by a plain exec: one
// found on PATH must still get its own name, its arguments and its environment, and its exit
// status must come back.
#include <gtest/gtest.h>

#include <string>

#include "run_process.h"

namespace {

TEST(RunProcess, ProgramOnThePathPrefixGetsItsNameArgumentsAndEnvironment) {
    orca_test::ProcessOptions options;
    options.path_prefix = PROBE_DIR;
    options.env = {{"ORCA_PROBE", "a value"}, {"ORCA_PROBE_EXIT", "3"}};
    const auto result = orca_test::run_process({PROBE_NAME, "one", "", "two words"}, options);
    EXPECT_EQ(result.out, std::string("argv[0]=") + PROBE_NAME +
                              "\nargv[1]=one\nargv[2]=\nargv[3]=two words\nORCA_PROBE=a value\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.exit_status, 3);
}

}  // namespace
