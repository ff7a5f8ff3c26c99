#include "preload-trace.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace board_sim {

namespace {

unsigned g_topics = 0;  // set once by the library constructor, before any thread exists
thread_local const char* t_call = "";

void write_stderr(const char* text, size_t length) {
    // The raw system call: write() itself is interposed.
    while (length > 0) {
        const long written = syscall(SYS_write, 2, text, length);
        if (written <= 0)
            return;
        text += written;
        length -= static_cast<size_t>(written);
    }
}

}  // namespace

void configure_trace(const char* topics) {
    g_topics = 0;
    if (topics == nullptr)
        return;
    const char* word = topics;
    while (*word != '\0') {
        const size_t length = std::strcspn(word, ",");
        if (length == 3 && std::strncmp(word, "bus", 3) == 0) {
            g_topics |= kTraceBus;
        } else if (length == 4 && std::strncmp(word, "path", 4) == 0) {
            g_topics |= kTracePath;
        } else if (length == 4 && std::strncmp(word, "exec", 4) == 0) {
            g_topics |= kTraceExec;
        } else if (length == 5 && std::strncmp(word, "clock", 5) == 0) {
            g_topics |= kTraceClock;
        } else if (length > 0) {
            char message[160];
            const int size = std::snprintf(message, sizeof message,
                                           "board-sim: ORCA_SIM_TRACE: unknown topic \"%.*s\" "
                                           "(known: bus, path, exec, clock)\n",
                                           static_cast<int>(length < 64 ? length : 64), word);
            if (size > 0)
                write_stderr(message, std::strlen(message));
        }
        word += length;
        if (*word == ',')
            ++word;
    }
}

bool tracing(TraceTopic topic) {
    return (g_topics & topic) != 0;
}

void trace(TraceTopic topic, const char* format, ...) {
    if (!tracing(topic))
        return;
    char line[1024];
    int used = std::snprintf(line, sizeof line, "board-sim[%d] %s: ", static_cast<int>(getpid()),
                             topic == kTraceBus    ? "bus"
                             : topic == kTracePath ? "path"
                             : topic == kTraceExec ? "exec"
                                                   : "clock");
    va_list arguments;
    va_start(arguments, format);
    const int more =
        std::vsnprintf(line + used, sizeof line - static_cast<size_t>(used) - 1, format, arguments);
    va_end(arguments);
    if (more > 0)
        used += more;
    if (used > static_cast<int>(sizeof line) - 2)
        used = static_cast<int>(sizeof line) - 2;  // cut, but still one whole line
    line[used++] = '\n';
    write_stderr(line, static_cast<size_t>(used));
}

const char* current_call() {
    return t_call;
}

CallScope::CallScope(const char* name) : outer_(t_call) {
    t_call = name;
}

CallScope::~CallScope() {
    t_call = outer_;
}

void* next_definition_or_abort(const char* name) {
    void* function = dlsym(RTLD_NEXT, name);
    if (function == nullptr) {
        const char* why = dlerror();
        char message[256];
        std::snprintf(message, sizeof message,
                      "board-sim: cannot find the libc function %s after the preload (%s)\n", name,
                      why ? why : "dlsym RTLD_NEXT returned null");
        write_stderr(message, std::strlen(message));
        std::abort();
    }
    return function;
}

}  // namespace board_sim
