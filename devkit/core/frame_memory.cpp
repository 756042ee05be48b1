#include "devkit/core/frame_memory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

namespace guilink {

namespace {

constexpr const char* MEMORY = "/dev/mem";
constexpr const char* RECORD = "/run/guilink-core";  // the first unused address of a board
constexpr uint64_t PAGE = 4096;
constexpr uint64_t LIMIT = 0x100000000;
constexpr Region SIMULATED = {0x10000000, LIMIT};  // above Linux's memory, as on the device

[[noreturn]] void fail(const std::string& why) {
    throw std::runtime_error("cannot make frame buffers in /dev/mem: " + why);
}

std::string hex(uint64_t address) {
    char text[20];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(address));
    return text;
}

bool is_simulated(int file) {
    struct stat status;
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode);
}

int open_memory(bool with_region) {
    // O_SYNC as in the service, because x86 refuses a second mapping of another kind.
    const int file = open(MEMORY, O_RDWR | O_SYNC | O_CLOEXEC);
    if (!with_region && (file < 0 || !is_simulated(file)))
        fail(
            "it is no simulated memory; run guilink-core in scripts/sandbox, or on a board with "
            "--memory");
    if (file < 0 && errno == ENOENT) fail("the kernel lacks it; build it with CONFIG_DEVMEM");
    if (file < 0) fail(std::string(std::strerror(errno)) + "; run guilink-core as root");
    return file;
}

// Reserves `length` bytes of unused addresses and returns the first address.
uint64_t take_addresses(int memory, uint64_t length, const Region& region) {
    const bool simulated = is_simulated(memory);
    const int file = simulated ? memory : open(RECORD, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) fail(std::string("cannot open ") + RECORD + ": " + std::strerror(errno));
    flock(file, LOCK_EX);
    uint64_t used = 0;
    if (pread(file, &used, sizeof used, 0) != sizeof used) used = 0;
    used = std::max(used, (region.begin + PAGE - 1) / PAGE * PAGE);
    const uint64_t end = used + length;
    const bool room = end <= region.end;
    if (room && pwrite(file, &end, sizeof end, 0) != sizeof end) fail(std::strerror(errno));
    flock(file, LOCK_UN);
    if (!simulated) close(file);
    if (!room)
        fail("they need " + std::to_string(length) + " bytes, but only " +
             std::to_string(region.end - std::min(used, region.end)) +
             " of the region are unused; " +
             (simulated ? "start a new sandbox" : "restart the board, or give a larger region"));
    return used;
}

unsigned char* map(int file, uint64_t address, uint64_t length) {
    void* const mapping = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, file,
                               static_cast<off_t>(address));
    if (mapping != MAP_FAILED) return static_cast<unsigned char*>(mapping);
    if (errno != EPERM) fail(std::strerror(errno));
    fail(
        "the kernel refuses " + hex(address) +
        ", because it uses this memory itself; reserve it: on x86 with memmap=SIZE$ADDRESS on the "
        "kernel's command line, on Arm with a reserved-memory node with no-map in the device tree");
}

}  // namespace

std::optional<Region> parse_region(const std::string& text) {
    char* end = nullptr;
    const uint64_t address = std::strtoull(text.c_str(), &end, 0);
    const uint64_t size = *end == ':' ? std::strtoull(end + 1, &end, 0) : 0;
    if (address == 0 || size == 0 || *end != '\0' || address >= LIMIT || size > LIMIT - address)
        return {};
    return Region{address, address + size};
}

// Leaves a page after each buffer unused, because the service maps one page more.
FrameMemory::FrameMemory(uint32_t size, const std::optional<Region>& region)
    : m_size(size),
      m_stride((size + PAGE - 1) / PAGE * PAGE + PAGE),
      m_file(open_memory(region.has_value())),
      m_address(take_addresses(m_file, BUFFERS * m_stride, region.value_or(SIMULATED))),
      m_mapping(map(m_file, m_address, BUFFERS * m_stride)) {}

FrameMemory::~FrameMemory() {
    munmap(m_mapping, BUFFERS * m_stride);
    if (is_simulated(m_file))
        fallocate(m_file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(m_address),
                  static_cast<off_t>(BUFFERS * m_stride));
    close(m_file);
}

std::span<uint16_t> FrameMemory::pixels(size_t buffer) const {
    return {reinterpret_cast<uint16_t*>(m_mapping + buffer * m_stride), m_size / sizeof(uint16_t)};
}

}  // namespace guilink
