// JSON file helpers over cJSON for the service's configuration and the pipe bus info
// files, for platforms that do not install their own libfjord_json.
#pragma once

#include <cJSON.h>

#ifdef __cplusplus
extern "C" {
#endif

// The tree of the JSON file at `path`, or NULL when it cannot be read or parsed (a parse
// error is reported on standard error, a missing file is not). C and C++ style comments,
// such as the header that json_write_to_file_with_header writes, are allowed.
cJSON* json_read_file(const char* path);

// Writes `tree` to `path` through a temporary file in the same folder that then replaces
// it, so that a failed write never leaves a truncated file behind. 0, or -1 after a message.
int json_write_to_file(const char* path, const cJSON* tree);
// The same with `header` (a comment block) written before the JSON text.
int json_write_to_file_with_header(const char* path, const cJSON* tree, const char* header);

// Creates `path` holding an empty object when there is no such file: 1 when it was
// created, 0 when it was there already, -1 on failure.
int json_make_empty_file_if_missing(const char* path);

// Each fetch stores the member `name` of the object `parent` in `*value`. A missing member
// gets the default, which is also added to `parent` so that a configuration written back
// lists every key: result 0. A member of the wrong type, or a NULL parent, gives the
// default without touching the tree: result -1 after a message.
int json_fetch_int_with_default(cJSON* parent, const char* name, int* value, int default_value);
int json_fetch_bool_with_default(cJSON* parent, const char* name, int* value, int default_value);
int json_fetch_float_with_default(cJSON* parent, const char* name, float* value,
                                  float default_value);
// Copies at most `capacity` - 1 characters and always terminates `value`.
int json_fetch_string_with_default(cJSON* parent, const char* name, char* value, int capacity,
                                   const char* default_value);

// The array member `name` when every element is an object, with its length; NULL (length 0)
// after a message otherwise.
cJSON* json_fetch_array_of_objects(cJSON* parent, const char* name, int* length);

#ifdef __cplusplus
}
#endif
