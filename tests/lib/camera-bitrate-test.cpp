// The camera bitrate as the camera pipe's info file states it, read at its fixed path on the
// simulated board's pipe bus.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "capture_output.h"
#include "orca-vtx-helpers.h"

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

}  // namespace
