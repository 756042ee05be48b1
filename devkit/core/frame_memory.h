// The simulated core's frame buffers, in physical memory: that of a board, or the regular file that
// the sandbox puts at /dev/mem.
//
// The service never maps an address anew, so every FrameMemory gets addresses above those of all
// earlier ones. 8 bytes hold the first unused address: on a board in a file that a boot removes, in
// the sandbox at the beginning of the memory. Destroying a FrameMemory does not free its addresses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace guilink {

struct Region {
    uint64_t begin, end;  // physical addresses
};

// Parses "ADDRESS:SIZE", in decimal or hexadecimal. Returns nothing if that is no region below
// 4 GiB, where the service maps frames.
std::optional<Region> parse_region(const std::string& text);

class FrameMemory {
  public:
    static constexpr size_t BUFFERS = 3;  // the core draws into the buffers in turn

    // Creates the buffers, each of `size` bytes, in `region`, which Linux must not use itself, or
    // without it in simulated memory. Throws std::runtime_error if the memory cannot be mapped, or
    // has too few unused addresses.
    explicit FrameMemory(uint32_t size, const std::optional<Region>& region = {});
    ~FrameMemory();
    FrameMemory(const FrameMemory&) = delete;
    FrameMemory& operator=(const FrameMemory&) = delete;

    uint64_t address(size_t buffer) const { return m_address + buffer * m_stride; }
    uint32_t size() const { return m_size; }
    std::span<uint16_t> pixels(size_t buffer) const;

  private:
    const uint32_t m_size;
    const uint64_t m_stride;  // bytes from one buffer to the next; a multiple of the page size
    const int m_file;
    const uint64_t m_address;  // physical address of the first buffer
    unsigned char* m_mapping;
};

}  // namespace guilink
