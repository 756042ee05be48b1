// The simulated core's frame buffers, in simulated physical memory: the regular file that the
// sandbox puts at /dev/mem.
//
// The service never maps an address anew, so every FrameMemory gets addresses that no core has used
// before: the file's first 8 bytes hold the first unused one. Destroying a FrameMemory frees its
// memory, but not its addresses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace guilink {

class FrameMemory {
  public:
    static constexpr size_t BUFFERS = 3;  // the core draws into the buffers in turn

    // Creates the buffers, each of `size` bytes. Throws std::runtime_error when there is no
    // simulated memory, or no unused address in it.
    explicit FrameMemory(uint32_t size);
    ~FrameMemory();
    FrameMemory(const FrameMemory&) = delete;
    FrameMemory& operator=(const FrameMemory&) = delete;

    uint64_t address(size_t buffer) const { return m_address + buffer * m_stride; }
    uint32_t size() const { return m_size; }
    std::span<uint16_t> pixels(size_t buffer) const;

  private:
    const uint32_t m_size;
    const uint64_t m_stride;  // bytes from one buffer to the next; a multiple of the page size
    int m_file;
    uint64_t m_address;  // physical address of the first buffer
    unsigned char* m_mapping;
};

}  // namespace guilink
