// Validators of the records that arrive over the other pipe-bus streams. A batch is
// accepted or refused as a whole: a read that split a record cannot be resynchronised.
#include "orca-common.h"
#include "pipe-records.h"

namespace {

template <typename Record>
Record* validate_as(char* data, int bytes, int* count, const char* name) {
    return reinterpret_cast<Record*>(
        orca_pipe_records::validate(data, bytes, count, static_cast<int>(sizeof(Record)), name));
}

}  // namespace

external_fc_status_t* validate_ext_fc_status_pipe_data(char* data, int bytes, int* count) {
    return validate_as<external_fc_status_t>(data, bytes, count, "external_fc_status_t");
}

ndc_coords_t* pipe_validate_ndc_coords_data(char* data, int bytes, int* count) {
    return validate_as<ndc_coords_t>(data, bytes, count, "ndc_coords_t");
}

orca_modem_doodle_stats_t* orca_modem_doodle_validate_pipe_data(char* data, int bytes, int* count) {
    return validate_as<orca_modem_doodle_stats_t>(data, bytes, count, "Doodle stats");
}

orca_bbox_t* pipe_validate_bbox_data(char* data, int bytes, int* count) {
    return validate_as<orca_bbox_t>(data, bytes, count, "Tflite");
}
