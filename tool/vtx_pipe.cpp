// The vtx_latency pipe client: opening, the pipe callbacks and the radio-state copy.
#include "vtx_pipe.h"

#include <cstdio>

#include "fjord_pipe.h"
#include "i2c-monitor.h"
#include <orca-vtx/orca-vtx-helpers.h>

std::atomic<int> g_frequency{5800};
std::atomic<int> g_mcs{0};
std::atomic<int> g_power_idx{1};
std::atomic<bool> g_vtx_data_updated{false};
char VTX_PIPE_PATH[64] = "";

namespace {

constexpr int kVtxPipeChannel = 0;
constexpr int kVtxPipeReadBuffer = 32768;

}  // namespace

int init_vtx_pipe() {
    snprintf(VTX_PIPE_PATH, sizeof VTX_PIPE_PATH, "%s%s", PIPE_BUS_DIR, "vtx_latency");
    if (Debug_Prints)
        printf("Initializing VTX pipe at: %s\n", VTX_PIPE_PATH);
    pipe_client_set_connect_cb(kVtxPipeChannel, _connect_cb, nullptr);
    pipe_client_set_disconnect_cb(kVtxPipeChannel, _disconnect_cb, nullptr);
    pipe_client_set_simple_helper_cb(kVtxPipeChannel, _vtx_data_cb, nullptr);
    return pipe_client_open(kVtxPipeChannel, VTX_PIPE_PATH, "orca-vtx-i2c-monitor",
                            CLIENT_FLAG_EN_SIMPLE_HELPER, kVtxPipeReadBuffer);
}

void get_vtx_config(int* mcs, int* frequency_mhz, int* power_index) {
    g_global_mcs = g_mcs.load(std::memory_order_relaxed);
    g_global_frequency = g_frequency.load(std::memory_order_relaxed);
    g_global_power_idx = g_power_idx.load(std::memory_order_relaxed);
    if (mcs != nullptr)
        *mcs = g_global_mcs;
    if (frequency_mhz != nullptr)
        *frequency_mhz = g_global_frequency;
    if (power_index != nullptr)
        *power_index = g_global_power_idx;
    if (Debug_Prints)
        printf("get_vtx_config - MCS: %d, Frequency: %d MHz, Power Index: %d\n", g_global_mcs,
               g_global_frequency, g_global_power_idx);
}

// The reader thread prints these; flushed so that they show up in order in a log.
void _connect_cb(int, void*) {
    printf("Connected to VTX Latency pipe\n");
    fflush(stdout);
}

void _disconnect_cb(int, void*) {
    printf("Disconnected from VTX Latency pipe\n");
    fflush(stdout);
}

void _vtx_data_cb(int, char* data, int bytes, void*) {
    int count = 0;
    const VtxLatencyRecord* records = orca_vtx_validate_pipe_data(data, bytes, &count);
    if (records == nullptr || count == 0)
        return;
    // Only the newest record of a batch matters.
    const VtxLatencyRecord& latest = records[count - 1];
    g_vtx_data_updated.store(true, std::memory_order_relaxed);
    g_power_idx.store(latest.power_index, std::memory_order_relaxed);
    g_frequency.store(latest.frequency_mhz, std::memory_order_relaxed);
    g_mcs.store(latest.mcs, std::memory_order_relaxed);
    if (Debug_Prints)
        printf(
            "Received VTX data: MCS=%d, Frequency=%d, Power=%d, Temp=%.2f°C, Power=%.2f dBm, "
            "Magic=0x%X\n",
            latest.mcs, latest.frequency_mhz, latest.power_index, latest.temperature_c,
            latest.output_dbm, latest.magic_number);
}
