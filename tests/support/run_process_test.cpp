// run_process as the end-to-end tests of every area use it. In the arm64 build these run under
// qemu-aarch64, where a program of the target machine cannot be started by a plain exec: they
// check that such a program still gets its arguments, environment and preload, and that
// scripts keep running directly.
#include <gtest/gtest.h>

#include <string>

#include "run_process.h"

namespace {

const std::string kProbe = PROBE_PROGRAM;

TEST(RunProcess, ProgramGetsItsArgumentsEnvironmentAndExitStatus) {
    orca_test::ProcessOptions options;
    options.env = {{"ORCA_PROBE", "a value"}, {"ORCA_PROBE_EXIT", "3"}};
    const auto result = orca_test::run_process({kProbe, "one", "", "two words"}, options);
    EXPECT_EQ(result.out, "argv[0]=" + kProbe +
                              "\nargv[1]=one\nargv[2]=\nargv[3]=two words\nORCA_PROBE=a value\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.exit_status, 3);
}

TEST(RunProcess, ProgramFoundOnThePathPrefixKeepsItsName) {
    orca_test::ProcessOptions options;
    options.path_prefix = PROBE_DIR;
    const auto result = orca_test::run_process({PROBE_NAME}, options);
    EXPECT_EQ(result.out, std::string("argv[0]=") + PROBE_NAME + "\nORCA_PROBE=(unset)\n");
    EXPECT_EQ(result.exit_status, 0);
}

TEST(RunProcess, PreloadReachesTheProgramWithoutNoise) {
    orca_test::ProcessOptions options;
    options.env = {{"LD_PRELOAD", PROBE_PRELOAD}};
    const auto result = orca_test::run_process({kProbe}, options);
    EXPECT_EQ(result.out, "probe preload loaded\nargv[0]=" + kProbe + "\nORCA_PROBE=(unset)\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.exit_status, 0);
}

TEST(RunProcess, ScriptsRunAsTheyAreWithInputAndStatus) {
    orca_test::TempDir dir;
    const std::string script =
        dir.write_file("echo-input", "#!/bin/sh\nread line\necho \"$0 $1 $line\"\nexit 7\n", true);
    orca_test::ProcessOptions options;
    options.stdin_text = "from stdin\n";
    const auto result = orca_test::run_process({script, "arg"}, options);
    EXPECT_EQ(result.out, script + " arg from stdin\n");
    EXPECT_EQ(result.exit_status, 7);
}

TEST(RunProcess, MissingProgramEndsWith127) {
    const auto result = orca_test::run_process({"/nonexistent/orca-no-such-program"});
    EXPECT_EQ(result.exit_status, 127);
}

}  // namespace
