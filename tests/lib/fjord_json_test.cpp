#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "capture_output.h"
#include "fjord_json.h"
#include "run_process.h"

namespace {

struct TreeDeleter {
    void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
using Tree = std::unique_ptr<cJSON, TreeDeleter>;

TEST(FjordJson, MissingKeysGetTheirDefaultsAndAreWrittenBack) {
    orca_test::TempDir dir;
    const std::string path = dir.path() + "/vtx.conf";
    EXPECT_EQ(json_make_empty_file_if_missing(path.c_str()), 1);
    EXPECT_EQ(json_make_empty_file_if_missing(path.c_str()), 0);
    Tree tree(json_read_file(path.c_str()));
    ASSERT_NE(tree, nullptr);

    int mtu = 0;
    char card[8];
    EXPECT_EQ(json_fetch_int_with_default(tree.get(), "mtu", &mtu, 1400), 0);
    EXPECT_EQ(json_fetch_string_with_default(tree.get(), "card", card, sizeof card, "wlan0"), 0);
    EXPECT_EQ(mtu, 1400);
    EXPECT_STREQ(card, "wlan0");
    ASSERT_EQ(json_write_to_file_with_header(path.c_str(), tree.get(), "/* orca-vtx */"), 0);

    // The header is a comment that reading skips; the defaults are now in the file.
    EXPECT_EQ(orca_test::read_file(path).rfind("/* orca-vtx */\n{", 0), 0u);
    Tree again(json_read_file(path.c_str()));
    ASSERT_NE(again, nullptr);
    cJSON_SetNumberValue(cJSON_GetObjectItem(again.get(), "mtu"), 1200);
    EXPECT_EQ(json_fetch_int_with_default(again.get(), "mtu", &mtu, 1400), 0);
    EXPECT_EQ(mtu, 1200);
    EXPECT_EQ(json_fetch_string_with_default(again.get(), "card", card, 4, "x"), 0);
    EXPECT_STREQ(card, "wla");
}

TEST(FjordJson, WrongTypesAndBrokenFilesAreReported) {
    orca_test::TempDir dir;
    const std::string broken = dir.write_file("broken.json", "{\"mtu\": ");
    Tree tree(cJSON_Parse("{\"mtu\": \"big\", \"profiles\": [{}, 3]}"));
    int mtu = 0, length = -1;
    Printed printed = capture_output([&] {
        EXPECT_EQ(json_read_file(broken.c_str()), nullptr);
        EXPECT_EQ(json_fetch_int_with_default(tree.get(), "mtu", &mtu, 1400), -1);
        EXPECT_EQ(json_fetch_array_of_objects(tree.get(), "profiles", &length), nullptr);
    });
    EXPECT_EQ(mtu, 1400);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(printed.err,
              "Error: cannot parse JSON file " + broken + " near \"\"\n" +
                  "Error: JSON member \"mtu\" is not a number, using the default\n"
                  "Error: JSON array \"profiles\" holds something other than objects\n");
}

TEST(FjordJson, AFailedWriteKeepsTheOldFile) {
    orca_test::TempDir dir;
    const std::string path = dir.write_file("vtx.conf", "{\"mtu\": 1}\n");
    Tree tree(cJSON_Parse("{\"mtu\": 2, \"card\": \"wlan0\"}"));
    // A file size limit makes the write fail part way, as a full disk would.
    rlimit saved;
    getrlimit(RLIMIT_FSIZE, &saved);
    rlimit small = saved;
    small.rlim_cur = 8;
    auto old_handler = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const int result = json_write_to_file(path.c_str(), tree.get());
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, old_handler);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(orca_test::read_file(path), "{\"mtu\": 1}\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

}  // namespace
