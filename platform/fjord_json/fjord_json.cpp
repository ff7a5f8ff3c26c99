#include "fjord_json.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool read_whole_file(const char* path, std::string* text) {
    FILE* file = std::fopen(path, "r");
    if (file == nullptr)
        return false;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        text->append(buffer, n);
    const bool ok = !std::ferror(file);
    std::fclose(file);
    return ok;
}

bool write_all(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// The new content goes to a temporary file first; only a complete, synced file replaces
// the old one.
int replace_file(const char* path, const std::string& content) {
    std::string temp = std::string(path) + ".XXXXXX";
    const int fd = mkstemp(temp.data());
    if (fd < 0) {
        std::fprintf(stderr, "Error: cannot create a temporary file for %s: %s\n", path,
                     std::strerror(errno));
        return -1;
    }
    fchmod(fd, 0644);
    bool written = write_all(fd, content.data(), content.size()) && fsync(fd) == 0;
    int error = written ? 0 : errno;
    if (close(fd) != 0 && written) {
        written = false;
        error = errno;
    }
    if (!written) {
        std::fprintf(stderr, "Error: cannot write %s: %s\n", path, std::strerror(error));
        unlink(temp.c_str());
        return -1;
    }
    if (std::rename(temp.c_str(), path) != 0) {
        std::fprintf(stderr, "Error: cannot replace %s: %s\n", path, std::strerror(errno));
        unlink(temp.c_str());
        return -1;
    }
    return 0;
}

// The member to fetch, or nullptr when it is missing (and the default is to be added).
// `*usable` is false for a NULL parent or a member of the wrong type.
cJSON* find_member(cJSON* parent, const char* name, cJSON_bool (*has_type)(const cJSON*),
                   const char* type_name, bool* usable) {
    *usable = false;
    if (parent == nullptr || name == nullptr || !cJSON_IsObject(parent)) {
        std::fprintf(stderr, "Error: no JSON object to read \"%s\" from\n", name ? name : "");
        return nullptr;
    }
    cJSON* item = cJSON_GetObjectItemCaseSensitive(parent, name);
    if (item != nullptr && !has_type(item)) {
        std::fprintf(stderr, "Error: JSON member \"%s\" is not %s, using the default\n", name,
                     type_name);
        return nullptr;
    }
    *usable = true;
    return item;
}

}  // namespace

cJSON* json_read_file(const char* path) {
    std::string text;
    if (path == nullptr || !read_whole_file(path, &text))
        return nullptr;
    cJSON_Minify(text.data());  // drops comments; the text only shrinks in place
    cJSON* tree = cJSON_Parse(text.c_str());
    if (tree == nullptr) {
        const char* where = cJSON_GetErrorPtr();
        std::fprintf(stderr, "Error: cannot parse JSON file %s near \"%.20s\"\n", path,
                     where ? where : "");
    }
    return tree;
}

int json_write_to_file_with_header(const char* path, const cJSON* tree, const char* header) {
    if (path == nullptr || tree == nullptr) {
        std::fprintf(stderr, "Error: nothing to write as JSON\n");
        return -1;
    }
    char* printed = cJSON_Print(tree);
    if (printed == nullptr) {
        std::fprintf(stderr, "Error: cannot format JSON for %s\n", path);
        return -1;
    }
    std::string content = header ? header : "";
    if (!content.empty() && content.back() != '\n')
        content += '\n';
    content += printed;
    content += '\n';
    cJSON_free(printed);
    return replace_file(path, content);
}

int json_write_to_file(const char* path, const cJSON* tree) {
    return json_write_to_file_with_header(path, tree, nullptr);
}

int json_make_empty_file_if_missing(const char* path) {
    if (path == nullptr)
        return -1;
    if (access(path, F_OK) == 0)
        return 0;
    // O_EXCL: a file that appears meanwhile is kept, not overwritten.
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        if (errno == EEXIST)
            return 0;
        std::fprintf(stderr, "Error: cannot create %s: %s\n", path, std::strerror(errno));
        return -1;
    }
    const bool written = write_all(fd, "{\n}\n", 4);
    close(fd);
    if (!written) {
        std::fprintf(stderr, "Error: cannot write %s\n", path);
        unlink(path);
        return -1;
    }
    return 1;
}

int json_fetch_int_with_default(cJSON* parent, const char* name, int* value, int default_value) {
    bool usable;
    cJSON* item = find_member(parent, name, cJSON_IsNumber, "a number", &usable);
    *value = default_value;
    if (!usable)
        return -1;
    if (item == nullptr) {
        cJSON_AddNumberToObject(parent, name, default_value);
        return 0;
    }
    *value = item->valueint;  // cJSON saturates out-of-range values
    return 0;
}

int json_fetch_bool_with_default(cJSON* parent, const char* name, int* value, int default_value) {
    bool usable;
    cJSON* item = find_member(parent, name, cJSON_IsBool, "true or false", &usable);
    *value = default_value != 0;
    if (!usable)
        return -1;
    if (item == nullptr) {
        cJSON_AddBoolToObject(parent, name, default_value != 0);
        return 0;
    }
    *value = cJSON_IsTrue(item) ? 1 : 0;
    return 0;
}

int json_fetch_float_with_default(cJSON* parent, const char* name, float* value,
                                  float default_value) {
    bool usable;
    cJSON* item = find_member(parent, name, cJSON_IsNumber, "a number", &usable);
    *value = default_value;
    if (!usable)
        return -1;
    if (item == nullptr) {
        cJSON_AddNumberToObject(parent, name, default_value);
        return 0;
    }
    *value = static_cast<float>(item->valuedouble);
    return 0;
}

int json_fetch_string_with_default(cJSON* parent, const char* name, char* value, int capacity,
                                   const char* default_value) {
    if (value == nullptr || capacity <= 0)
        return -1;
    bool usable;
    cJSON* item = find_member(parent, name, cJSON_IsString, "a string", &usable);
    const char* text = default_value ? default_value : "";
    if (usable && item == nullptr)
        cJSON_AddStringToObject(parent, name, text);
    else if (usable)
        text = item->valuestring;
    std::snprintf(value, static_cast<size_t>(capacity), "%s", text);
    return usable ? 0 : -1;
}

cJSON* json_fetch_array_of_objects(cJSON* parent, const char* name, int* length) {
    *length = 0;
    bool usable;
    cJSON* array = find_member(parent, name, cJSON_IsArray, "an array", &usable);
    if (array == nullptr) {
        if (usable)
            std::fprintf(stderr, "Error: JSON array \"%s\" is missing\n", name);
        return nullptr;
    }
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, array) {
        if (!cJSON_IsObject(element)) {
            std::fprintf(stderr, "Error: JSON array \"%s\" holds something other than objects\n",
                         name);
            return nullptr;
        }
    }
    *length = cJSON_GetArraySize(array);
    return array;
}
