// The programs that guilinkd registers, and their arguments. Each program has one procedure, 0.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t IPC_PROG_GUI_BUF = 0x70000004;  // argument: the 12 bytes of a GuiBufferArg
constexpr uint32_t IPC_PROG_QR_BODY = 0x70000005;  // argument: zero-terminated identity
constexpr uint32_t IPC_SVC_VERSION = 1;            // version of both programs

// A frame in physical memory, little-endian.
struct GuiBufferArg {
    uint64_t phys_addr;  // address of the frame's first byte
    uint32_t size;       // size of the frame in bytes
};
static_assert(offsetof(GuiBufferArg, phys_addr) == 0 && offsetof(GuiBufferArg, size) == 8);
