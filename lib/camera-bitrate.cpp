// The bitrate the camera pipe says it is configured for.
#include <cstdio>
#include <string>

#include "config-json.h"
#include "orca-vtx-helpers.h"

int fetch_camera_bitrate(const std::string& source) {
    constexpr int kDefaultBps = 1000000;
    const std::string path = "/run/fjp/" + source + "/info";
    cJSON* info = open_json(path.c_str(), false);
    if (info == nullptr) {
        std::printf(
            "failed to fetch bitrate from source_parent json array. Defaulting to 1000000 "
            "bps.\n");
        return kDefaultBps;
    }
    int bps = kDefaultBps;
    json_fetch_int_with_default(info, "bps", &bps, kDefaultBps);
    cJSON_Delete(info);
    return bps;
}
