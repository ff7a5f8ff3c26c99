// CPU performance mode: asked of the CPU monitor service through its pipe's control socket.
#include "fjord_pipe.h"
#include "orca-common.h"

int set_perf_mode() {
    return pipe_send_control_cmd("cpu_stats2", "set_cpu_mode_perf_with_pitmode");
}
