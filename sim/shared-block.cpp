#include "shared-block.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

namespace board_sim {

namespace {

constexpr uint64_t kMagic = 0x4f52434153494d31;  // "ORCASIM1"

}  // namespace

std::string shared_block_path(const std::string& sandbox_root) {
    return sandbox_root + "/shared-block";
}

SharedBlock* map_shared_block(const std::string& sandbox_root, bool create) {
    const std::string path = shared_block_path(sandbox_root);
    int fd = create ? open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600)
                    : open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        std::fprintf(stderr, "board-sim: cannot open %s: %s\n", path.c_str(), std::strerror(errno));
        return nullptr;
    }
    if (create && ftruncate(fd, sizeof(SharedBlock)) != 0) {
        std::fprintf(stderr, "board-sim: cannot size %s: %s\n", path.c_str(), std::strerror(errno));
        close(fd);
        return nullptr;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(sizeof(SharedBlock))) {
        std::fprintf(stderr, "board-sim: %s is not a simulation block\n", path.c_str());
        close(fd);
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(SharedBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED) {
        std::fprintf(stderr, "board-sim: cannot map %s: %s\n", path.c_str(), std::strerror(errno));
        return nullptr;
    }
    auto* block = static_cast<SharedBlock*>(memory);
    if (create) {
        // The file starts zeroed, which is a valid state for the atomics.
        new (&block->clock_offset_ns) std::atomic<uint64_t>(0);
        new (&block->wait_ns) std::atomic<uint64_t>(0);
        new (&block->bus_ns) std::atomic<uint64_t>(0);
        new (&block->state_generation) std::atomic<uint64_t>(0);
        new (&block->unexpected_frames) std::atomic<uint64_t>(0);
        std::atomic_thread_fence(std::memory_order_release);
        block->magic = kMagic;
    } else if (block->magic != kMagic) {
        std::fprintf(stderr, "board-sim: %s is not a simulation block\n", path.c_str());
        munmap(memory, sizeof(SharedBlock));
        return nullptr;
    }
    return block;
}

}  // namespace board_sim
