// The transmitter service's helpers: calibration tables, power control, RTP, FEC and the
// vtx_latency record.
#pragma once

#include <cstdint>

#pragma pack(push, 1)
struct VtxLatencyRecord {  // 81 bytes, little-endian, as the service publishes it
    uint32_t magic_number;
    uint8_t reserved_4[41];
    double temperature_c;
    double output_dbm;
    uint8_t reserved_61[4];
    int32_t power_index;
    int32_t frequency_mhz;
    int32_t mcs;
    uint8_t reserved_77[4];
};
#pragma pack(pop)
static_assert(sizeof(VtxLatencyRecord) == 81, "vtx_latency records are 81 bytes");

VtxLatencyRecord* orca_vtx_validate_pipe_data(char* data, int bytes, int* count);
