// Validation of a batch of vtx_latency records as the pipe library delivers it.
#include "orca-common.h"
#include "orca-vtx-helpers.h"
#include "pipe-records.h"

VtxLatencyRecord* orca_vtx_validate_pipe_data(char* data, int bytes, int* count) {
    return reinterpret_cast<VtxLatencyRecord*>(orca_pipe_records::validate(
        data, bytes, count, static_cast<int>(sizeof(VtxLatencyRecord)), "VTX"));
}
