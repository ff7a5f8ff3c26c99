// Publishes a scripted sequence of good and bad vtx_latency traffic on a pipe.
// Usage: pipe-test-publisher PIPE_DIR ACTION...
//   wait-client            wait until a client is connected
//   record F M P           one good record (frequency, MCS, power index)
//   bad-magic F M P        a record with a wrong magic number
//   batch N F M P          N good records in one write, the last one with these values
//   flood N                N writes of random bytes and lengths, never a good record
//   until-gone F M P       a good record every 5 ms until no client is left
//   crash                  die by SIGKILL, leaving the pipe's files behind
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fjord_pipe.h"
#include <orca-vtx/orca-vtx-helpers.h>

namespace {

// Polls every 5 ms, for at most 10 s, until the pipe has clients or, with `gone`, none.
bool wait_for_clients(bool gone, const VtxLatencyRecord* repeat = nullptr) {
    for (int ms = 0; ms <= 10000; ms += 5) {
        if ((pipe_server_get_num_clients(0) > 0) != gone)
            return true;
        if (repeat != nullptr)
            pipe_server_write(0, repeat, sizeof *repeat);
        usleep(5000);
    }
    return false;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc < 2 || pipe_server_create(0, argv[1], "vtx_latency_t") < 0)
        return 1;
    for (int i = 2; i < argc; ++i) {
        const std::string action = argv[i];
        VtxLatencyRecord record = {};
        if ((action == "record" || action == "bad-magic" || action == "until-gone") &&
            i + 3 < argc) {
            record.magic_number = action == "bad-magic" ? 0x12345678 : 0x4F524341;
            record.frequency_mhz = atoi(argv[i + 1]);
            record.mcs = atoi(argv[i + 2]);
            record.power_index = atoi(argv[i + 3]);
            i += 3;
        }
        if (action == "wait-client") {
            if (!wait_for_clients(false))
                return 2;
        } else if (action == "until-gone" && record.magic_number != 0) {
            if (!wait_for_clients(true, &record))
                return 2;
        } else if (record.magic_number != 0) {
            pipe_server_write(0, &record, sizeof record);
        } else if (action == "batch" && i + 4 < argc) {
            std::vector<VtxLatencyRecord> batch(
                static_cast<size_t>(std::max(1, atoi(argv[i + 1]))));
            for (VtxLatencyRecord& each : batch)
                each = {}, each.magic_number = 0x4F524341, each.frequency_mhz = 5000;
            batch.back().frequency_mhz = atoi(argv[i + 2]);
            batch.back().mcs = atoi(argv[i + 3]);
            batch.back().power_index = atoi(argv[i + 4]);
            i += 4;
            pipe_server_write(0, batch.data(), static_cast<int>(batch.size() * sizeof batch[0]));
        } else if (action == "flood" && i + 1 < argc) {
            unsigned seed = 12345;
            std::vector<unsigned char> bytes(400);
            for (int n = atoi(argv[++i]); n > 0; --n) {
                for (auto& b : bytes)
                    b = static_cast<unsigned char>(rand_r(&seed));
                bytes[0] = 0x00;  // never the first byte of the magic number
                pipe_server_write(0, bytes.data(), 1 + rand_r(&seed) % 400);
            }
        } else if (action == "crash") {
            kill(getpid(), SIGKILL);
        } else {
            fprintf(stderr, "pipe-test-publisher: bad action %s\n", action.c_str());
            return 1;
        }
    }
    pipe_server_close(0);
    return 0;
}
