#include "devkit/core/frame_memory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace guilink {

namespace {

constexpr const char* MEMORY = "/dev/mem";
constexpr uint64_t PAGE = 4096;
constexpr uint64_t FIRST_ADDRESS = 0x10000000;  // above Linux's memory, as on the device

[[noreturn]] void fail(const std::string& why) {
    throw std::runtime_error("cannot make frame buffers in /dev/mem: " + why);
}

int open_memory() {
    const int file = open(MEMORY, O_RDWR | O_CLOEXEC);
    struct stat status;
    if (file < 0 || fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
        if (file >= 0) close(file);
        fail("it is no simulated memory; run guilink-core in scripts/sandbox");
    }
    return file;
}

// Reserves `length` bytes of unused addresses and returns the first address.
uint64_t take_addresses(int file, uint64_t length) {
    flock(file, LOCK_EX);
    uint64_t used = 0;
    if (pread(file, &used, sizeof used, 0) != sizeof used || used == 0) used = FIRST_ADDRESS;
    struct stat status;
    fstat(file, &status);
    const bool room = used + length <= static_cast<uint64_t>(status.st_size);
    const uint64_t end = used + length;
    if (room && pwrite(file, &end, sizeof end, 0) != sizeof end) fail(std::strerror(errno));
    flock(file, LOCK_UN);
    if (!room) fail("all its addresses have been used; start a new sandbox");
    return used;
}

}  // namespace

// Leaves a page after each buffer unused, because the service maps one page more.
FrameMemory::FrameMemory(uint32_t size)
    : m_size(size),
      m_stride((size + PAGE - 1) / PAGE * PAGE + PAGE),
      m_file(open_memory()),
      m_address(take_addresses(m_file, BUFFERS * m_stride)) {
    void* const mapping = mmap(nullptr, BUFFERS * m_stride, PROT_READ | PROT_WRITE, MAP_SHARED,
                               m_file, static_cast<off_t>(m_address));
    if (mapping == MAP_FAILED) fail(std::strerror(errno));
    m_mapping = static_cast<unsigned char*>(mapping);
}

FrameMemory::~FrameMemory() {
    munmap(m_mapping, BUFFERS * m_stride);
    fallocate(m_file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(m_address),
              static_cast<off_t>(BUFFERS * m_stride));
    close(m_file);
}

std::span<uint16_t> FrameMemory::pixels(size_t buffer) const {
    return {reinterpret_cast<uint16_t*>(m_mapping + buffer * m_stride), m_size / sizeof(uint16_t)};
}

}  // namespace guilink
