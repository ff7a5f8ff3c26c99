// A preload for the run_process tests: announces itself when the program under test loads it.
#include <unistd.h>

__attribute__((constructor)) static void announce() {
    static const char text[] = "probe preload loaded\n";
    ssize_t ignored = write(1, text, sizeof text - 1);
    (void)ignored;
}
