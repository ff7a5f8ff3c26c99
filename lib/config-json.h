// Reading the service's JSON files (configuration, pipe info files). Internal to the
// library: the installed headers do not expose cJSON.
#pragma once

#include "fjord_json.h"

// The tree of the JSON file at `path`, or nullptr when it cannot be read or parsed. With
// `create`, a missing file is first created holding an empty object.
cJSON* open_json(const char* path, bool create);
