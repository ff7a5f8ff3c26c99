#include "config-json.h"

cJSON* open_json(const char* path, bool create) {
    if (create && json_make_empty_file_if_missing(path) < 0)
        return nullptr;
    return json_read_file(path);
}
