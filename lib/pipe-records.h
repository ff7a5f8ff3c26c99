// The validation shared by every pipe-bus record validator of the library (internal; not
// installed). A batch is accepted or refused as a whole: a read that split a record cannot
// be resynchronised.
#pragma once

namespace orca_pipe_records {

// Checks that `bytes` of `data` are whole records of `record_size` bytes that all begin
// with ORCA_MAGIC_NUMBER. Returns `data` with *count set to the number of records, or
// nullptr with *count 0 after messages on stderr naming the stream `name` (a negative
// size, a null buffer, a partial record, or each wrong magic number). A null `count` is
// allowed: the batch is still validated. Changes nothing in `data`.
char* validate(char* data, int bytes, int* count, int record_size, const char* name);

}  // namespace orca_pipe_records
