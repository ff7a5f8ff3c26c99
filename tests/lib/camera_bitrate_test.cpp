// The camera bitrate as the camera pipe's info file states it, read at its fixed path on the
// simulated board's pipe bus.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "capture_output.h"
#include "orca-vtx-helpers.h"

namespace {

void write_info(const std::string& pipe, const std::string& json) {
    mkdir("/run/fjp", 0755);
    mkdir(("/run/fjp/" + pipe).c_str(), 0755);
    std::ofstream("/run/fjp/" + pipe + "/info") << json;
}

TEST(CameraBitrateOnTheBus, ReadsTheConfiguredBitrate) {
    write_info("hires_camera", R"({"name": "hires_camera", "bps": 4500000})");
    Printed printed =
        capture_output([] { EXPECT_EQ(fetch_camera_bitrate("hires_camera"), 4500000); });
    EXPECT_EQ(printed.out, "");
}

TEST(CameraBitrateOnTheBus, FallsBackWhenTheInfoLacksOrGarblesIt) {
    write_info("plain_camera", R"({"name": "plain_camera"})");
    EXPECT_EQ(fetch_camera_bitrate("plain_camera"), 1000000);

    write_info("broken_camera", "{\"bps\": 45");
    Printed printed =
        capture_output([] { EXPECT_EQ(fetch_camera_bitrate("broken_camera"), 1000000); });
    EXPECT_EQ(printed.out,
              "failed to fetch bitrate from source_parent json array. Defaulting to 1000000 "
              "bps.\n");
}

}  // namespace
