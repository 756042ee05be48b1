#include "bench/memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "link/com_lib_interface.h"
#include "link/read_frame.h"

namespace guilink {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Copy = void (*)(unsigned char* to, const unsigned char* from, size_t size);

constexpr auto TIME = 1s;  // measuring time of each copy function

void copy_plainly(unsigned char* to, const unsigned char* from, size_t size) {
    std::memcpy(to, from, size);
}

void measure(const char* name, Copy copy, const unsigned char* from, size_t size) {
    std::vector<unsigned char> to(size);
    copy(to.data(), from, size);  // touches each page once, before the measurement
    const auto start = Clock::now();
    std::chrono::duration<double> time{};
    size_t rounds = 0;
    for (; time < TIME; time = Clock::now() - start) {
        copy(to.data(), from, size);
        ++rounds;
    }
    const double rate = static_cast<double>(rounds * size) / time.count();
    const double frame = static_cast<double>(ComLibInterface::FRAME_BUFFER_SIZE) / rate;
    std::printf(
        "%-6s %8.3f GB/s %8.2f ms for a frame of 1280 x 960, %.0f %% of a core at 60 frames a "
        "second\n",
        name, rate / 1e9, frame * 1e3, frame * 60 * 100);
    std::fflush(stdout);
}

// In a child process, because a plain load from device memory can raise a signal.
void measure_plain_reads(const unsigned char* from, size_t size) {
    const pid_t child = fork();
    if (child == 0) {
        measure("plain", copy_plainly, from, size);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFSIGNALED(status)) return;
    std::printf("plain  ended by signal %d: this is device memory\n", WTERMSIG(status));
}

}  // namespace

int measure_memory(const std::string& region) {
    char* end = nullptr;
    const uint64_t address = std::strtoull(region.c_str(), &end, 0);
    const size_t size = *end == ':' ? std::strtoull(end + 1, &end, 0) : 0;
    if (size == 0 || *end != '\0') {
        std::fprintf(stderr, "guilink-bench: '%s' is not ADDRESS:SIZE, as in 0x10000000:2457600\n",
                     region.c_str());
        return 2;
    }
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const uint64_t offset = address % page;
    const int memory = open("/dev/mem", O_RDONLY | O_SYNC);  // O_SYNC, as the service opens it
    void* const start = mmap(nullptr, offset + size, PROT_READ, MAP_SHARED, memory,
                             static_cast<off_t>(address - offset));
    if (start == MAP_FAILED) {
        std::fprintf(stderr,
                     "guilink-bench: cannot map %zu bytes of /dev/mem at 0x%" PRIx64
                     ": %s; is this root, and the region reserved?\n",
                     size, address, std::strerror(errno));
        return 1;
    }
    const auto* const from = static_cast<const unsigned char*>(start) + offset;
    std::printf("%zu bytes of /dev/mem at 0x%" PRIx64 "\n", size, address);
    measure("wide", CopyWide, from, size);
    // From an odd address, because only unaligned loads from device memory raise a signal.
    measure_plain_reads(from + 1, size - 1);
    return 0;
}

}  // namespace guilink
