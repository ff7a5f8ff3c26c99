// Client of the transmitter service's vtx_latency status pipe: the radio's current
// frequency, MCS and power index, as the service last published them.
#pragma once

#include <atomic>

// Stored by the pipe library's reader thread and loaded by the main thread, each access on
// its own and without a lock: relaxed atomics compile to the plain 32-bit loads and stores
// of the target. Readers must tolerate the flag before the values and a mix of two records.
extern std::atomic<int> g_frequency;  // 5800
extern std::atomic<int> g_mcs;        // 0
extern std::atomic<int> g_power_idx;  // 1
extern std::atomic<bool> g_vtx_data_updated;
extern char VTX_PIPE_PATH[64];

// Opens client channel 0 on /run/fjp/vtx_latency; the pipe library's result (negative on
// failure). The service need not be running yet.
int init_vtx_pipe();
// Copies the radio state into the outputs and into g_global_mcs, g_global_frequency and
// g_global_power_idx.
void get_vtx_config(int* mcs, int* frequency_mhz, int* power_index);

// Callbacks given to the pipe library; they run on its reader thread.
void _connect_cb(int channel, void* context);
void _disconnect_cb(int channel, void* context);
void _vtx_data_cb(int channel, char* data, int bytes, void* context);
