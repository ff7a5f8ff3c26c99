#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "fjord_json.h"
#include "run_process.h"

namespace {

TEST(FjordJson, AWriteReplacesTheFileWholeOrNotAtAll) {
    orca_test::TempDir dir;
    const std::string path = dir.write_file("vtx.conf", "{\"mtu\": 1}\n");
    cJSON* tree = cJSON_Parse("{\"mtu\": 2, \"card\": \"wlan0\"}");
    // A file size limit makes the write fail part way, as a full disk would.
    rlimit saved, small{8, 8};
    getrlimit(RLIMIT_FSIZE, &saved);
    small.rlim_max = saved.rlim_max;
    auto old_handler = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const int result = json_write_to_file(path.c_str(), tree);
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, old_handler);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(orca_test::read_file(path), "{\"mtu\": 1}\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);

    // Without the limit the tree replaces the file, after a header that reading skips.
    ASSERT_EQ(json_write_to_file_with_header(path.c_str(), tree, "/* orca-vtx */"), 0);
    cJSON_Delete(tree);
    EXPECT_EQ(orca_test::read_file(path).rfind("/* orca-vtx */\n{", 0), 0u);
    tree = json_read_file(path.c_str());
    int mtu = 0;
    EXPECT_EQ(json_fetch_int_with_default(tree, "mtu", &mtu, 1400), 0);
    EXPECT_EQ(mtu, 2);
    cJSON_Delete(tree);
}

}  // namespace
