// Runs the tool's vtx_latency callbacks on a pipe given on the command line and prints the
// radio state each time a record is taken, until the stop frequency shows up.
// Usage: pipe-test-client PIPE_DIR STOP_FREQUENCY
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "fjord_pipe.h"
#include "vtx_pipe.h"

int main(int argc, char* argv[]) {
    if (argc != 3) {
        fprintf(stderr, "Usage: pipe-test-client PIPE_DIR STOP_FREQUENCY\n");
        return 1;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int stop_frequency = atoi(argv[2]);
    pipe_client_set_connect_cb(0, _connect_cb, nullptr);
    pipe_client_set_disconnect_cb(0, _disconnect_cb, nullptr);
    pipe_client_set_simple_helper_cb(0, _vtx_data_cb, nullptr);
    if (pipe_client_open(0, argv[1], "pipe-test-client", CLIENT_FLAG_EN_SIMPLE_HELPER, 32768) < 0)
        return 1;
    for (;;) {
        // Polled like the monitor loop does, once per pass.
        if (g_vtx_data_updated.exchange(false)) {
            int mcs, frequency, power_index;
            get_vtx_config(&mcs, &frequency, &power_index);
            printf("vtx frequency=%d mcs=%d power_index=%d\n", frequency, mcs, power_index);
            if (frequency == stop_frequency)
                break;
        }
        usleep(1000);
    }
    pipe_client_close_all();
    return 0;
}
