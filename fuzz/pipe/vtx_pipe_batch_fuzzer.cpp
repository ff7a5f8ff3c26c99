// Feeds arbitrary batches through the vtx_latency validator and data callback: the radio
// state may only ever take the values of the last record of a wholly good batch.
//
// Input: a series of chunks, each [flags][length, 2 bytes little-endian][bytes]. Flag bit 0
// stamps the magic number into every whole record, so that good batches are common.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <orca-vtx/orca-vtx-helpers.h>
#include "vtx_pipe.h"

namespace {

constexpr int kRecord = 81;
constexpr uint32_t kMagic = 0x4F524341;

int32_t field(const std::vector<char>& bytes, size_t offset) {
    int32_t value;
    memcpy(&value, &bytes[offset], sizeof value);
    return value;
}

void check(bool ok, const char* what) {
    if (!ok) {
        dprintf(2, "vtx_pipe_batch_fuzzer: %s\n", what);  // stderr is muted, fd 2 is not
        abort();
    }
}

void run_batch(uint8_t flags, std::vector<char>& bytes) {
    const int size = static_cast<int>(bytes.size());
    // An empty vector may have no buffer at all: a null pointer is never a good batch.
    bool good = bytes.data() != nullptr && size % kRecord == 0;
    for (int at = 0; at + kRecord <= size; at += kRecord) {
        if (flags & 1)
            memcpy(&bytes[static_cast<size_t>(at)], &kMagic, sizeof kMagic);
        good = good && static_cast<uint32_t>(field(bytes, static_cast<size_t>(at))) == kMagic;
    }

    int count = -1;
    VtxLatencyRecord* records = orca_vtx_validate_pipe_data(bytes.data(), size, &count);
    check(records == (good ? reinterpret_cast<VtxLatencyRecord*>(bytes.data()) : nullptr),
          "validator verdict");
    check(count == (good ? size / kRecord : 0), "record count");

    const int before[3] = {g_frequency, g_mcs, g_power_idx};
    g_vtx_data_updated = false;
    _vtx_data_cb(0, bytes.data(), size, nullptr);
    if (good && size > 0) {
        const size_t last = static_cast<size_t>(size - kRecord);
        check(g_vtx_data_updated, "good batch not flagged");
        check(g_power_idx == field(bytes, last + 65) && g_frequency == field(bytes, last + 69) &&
                  g_mcs == field(bytes, last + 73),
              "radio state is not that of the last record");
    } else {
        check(!g_vtx_data_updated && g_frequency == before[0] && g_mcs == before[1] &&
                  g_power_idx == before[2],
              "bad or empty batch changed the radio state");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Every rejected batch prints its messages; send them nowhere. libFuzzer and the
    // sanitizers write their reports to descriptor 2 directly, which stays open.
    FILE* sink = fopen("/dev/null", "w");
    if (sink != nullptr)
        stderr = sink;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
    for (size_t at = 0; at + 3 <= size;) {
        const uint8_t flags = input[at];
        const size_t length = std::min<size_t>(input[at + 1] | input[at + 2] << 8, size - at - 3);
        at += 3;
        // An exact-size copy, so that any read past the batch is caught.
        std::vector<char> bytes(input + at, input + at + length);
        run_batch(flags, bytes);
        at += length;
    }
    return 0;
}
