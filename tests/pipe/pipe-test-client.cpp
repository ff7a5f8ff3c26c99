// Opens the vtx_latency pipe as the tool does (its path, read buffer and callbacks) and prints
// the radio state each time a record is taken and each time the publisher goes away, until
// the stop frequency shows up. Runs on the simulated board, whose sandbox holds /run/fjp.
// Usage: pipe-test-client STOP_FREQUENCY
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "fjord_pipe.h"
#include "vtx_pipe.h"

namespace {

void print_state(const char* when, int frequency, int mcs, int power_index) {
    printf("%s: vtx frequency=%d mcs=%d power_index=%d\n", when, frequency, mcs, power_index);
}

// Runs after every record queued before the publisher left has been handed over. It reads
// what the data callback stores; the published copies belong to the main thread.
void disconnect_then_print(int channel, void* context) {
    _disconnect_cb(channel, context);
    print_state("disconnected", g_frequency, g_mcs, g_power_idx);
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 2) {
        fprintf(stderr, "Usage: pipe-test-client STOP_FREQUENCY\n");
        return 1;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int stop_frequency = atoi(argv[1]);
    if (init_vtx_pipe() < 0)
        return 1;
    pipe_client_set_disconnect_cb(0, disconnect_then_print, nullptr);
    for (;;) {
        // Polled like the monitor loop does, once per pass.
        if (g_vtx_data_updated.exchange(false)) {
            int mcs, frequency, power_index;
            get_vtx_config(&mcs, &frequency, &power_index);
            print_state("taken", frequency, mcs, power_index);
            if (frequency == stop_frequency)
                break;
        }
        usleep(1000);
    }
    pipe_client_close_all();
    return 0;
}
