// A frame's way in: from a physical address to the link facade.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "ipc/ipc_gui_fetcher.h"
#include "link/com_lib_interface.h"

static_assert(offsetof(GuiBufferArg, phys_addr) == 0 && offsetof(GuiBufferArg, size) == 8);

namespace {

constexpr uint64_t PAGE_MASK = 0xFFFFF000;  // loses what lies above 4 GiB; meant
constexpr uint64_t OFFSET_MASK = 0xFFF;
constexpr uint32_t EXTRA_PAGE = 4096;  // bytes; for a frame that does not start on a page

void clear(_AMBA_IPC_SVC_RESULT_s_* result) {
    result->word_0 = 0;
    result->word_16 = 0;
    result->word_20 = 0;
}

}  // namespace

std::map<uint64_t, std::shared_ptr<unsigned char>>& IpcGuiFetcher::cached_buffers =
    *new std::map<uint64_t, std::shared_ptr<unsigned char>>;

void IpcGuiFetcher::ipcGuiBufReceiver(const unsigned char* argument,
                                      _AMBA_IPC_SVC_RESULT_s_* result) {
    if (!m_published) {  // registered a moment ago, and the fetcher is not complete yet
        clear(result);
        return;
    }
    IpcGuiFetcher& fetcher = *m_guiFetcher;
    GuiBufferArg buffer = {};
    std::memcpy(&buffer.phys_addr, argument, sizeof buffer.phys_addr);
    std::memcpy(&buffer.size, argument + offsetof(GuiBufferArg, size), sizeof buffer.size);

    std::shared_ptr<unsigned char> frame;
    if (const auto cached = cached_buffers.find(buffer.phys_addr); cached != cached_buffers.end()) {
        frame = cached->second;
    } else {
        mapPhysBuffer(fetcher, buffer);
        // Unmaps with the size mapped last, from where the frame starts; runs only where the map
        // cannot take the buffer.
        const auto release = [&fetcher](unsigned char* start) {
            munmap(start, fetcher.m_mappedSize);
        };
        frame = std::shared_ptr<unsigned char>(fetcher.m_mappedBuffer, release);
        cached_buffers[buffer.phys_addr] = frame;
    }

    {
        const std::lock_guard lock(fetcher.m_comLibMutex);
        // The size mapped last, not the one announced: all buffers are taken to be of one size.
        if (fetcher.m_comLib != nullptr) fetcher.m_comLib->push_frame(frame, fetcher.m_mappedSize);
    }
    clear(result);
}

// Nothing is examined: what could not be mapped faults when it is read.
void IpcGuiFetcher::mapPhysBuffer(IpcGuiFetcher& fetcher, const GuiBufferArg& buffer) {
    const uint64_t page = buffer.phys_addr & PAGE_MASK;
    const uint64_t offset = buffer.phys_addr & OFFSET_MASK;
    const uint32_t length = buffer.size + EXTRA_PAGE;
    const int memory = open("/dev/mem", O_RDWR | O_SYNC);
    void* const start =
        mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, memory, static_cast<off_t>(page));
    fetcher.m_mappedBuffer = static_cast<unsigned char*>(start) + offset;
    fetcher.m_mappedSize = buffer.size;
    close(memory);
}
