#include "ipc/ipc_gui_fetcher.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <system_error>

#include "base/write_line.h"
#include "ipc/read_identity.h"
#include "ipc/svc_register.h"
#include "link/com_lib_interface.h"

namespace {

constexpr const char* SETTINGS_FILE = "/tmp/FL0/kel.ini";
constexpr uint64_t PAGE_MASK = 0xFFFFF000;  // Deliberate: drops the address bits above 4 GiB.
constexpr uint64_t OFFSET_MASK = 0xFFF;
constexpr uint32_t EXTRA_PAGE = 4096;  // bytes; for frames that do not start on a page boundary

void clear(_AMBA_IPC_SVC_RESULT_s_* result) {
    result->word_0 = 0;
    result->word_16 = 0;
    result->word_20 = 0;
}

// Names the address, because nothing else in the log of the end that follows would.
void report_refusal(uint64_t address, int error) {
    char digits[16];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), address, 16).ptr;
    write_line(STDERR_FILENO, {"IpcGuiFetcher: cannot map 0x",
                               {std::begin(digits), end},
                               ": ",
                               std::generic_category().message(error)});
}

}  // namespace

std::string& IpcGuiFetcher::ID = *new std::string("11111");
const std::string& IpcGuiFetcher::fw = *new std::string("fw1.1");
std::shared_ptr<IpcGuiFetcher>& IpcGuiFetcher::m_guiFetcher = *new std::shared_ptr<IpcGuiFetcher>;
std::atomic<bool> IpcGuiFetcher::m_published{false};
Mutex IpcGuiFetcher::m_instanceMutex;
std::map<uint64_t, std::shared_ptr<unsigned char>>& IpcGuiFetcher::cached_buffers =
    *new std::map<uint64_t, std::shared_ptr<unsigned char>>;

std::shared_ptr<IpcGuiFetcher> IpcGuiFetcher::getInstance() {
    const Lock lock(m_instanceMutex);
    if (m_guiFetcher == nullptr) {
        m_guiFetcher.reset(new IpcGuiFetcher);
        m_published = true;
    }
    return m_guiFetcher;
}

IpcGuiFetcher::IpcGuiFetcher() {
    loadIdFromIni();
    m_comLib = std::make_shared<ComLibInterface>(ID, fw);
    const char* const name = "svc_ipc_gui";
    const IpcProc procedures[] = {ipcGuiBufReceiver, ipcQrBodyReceiver};
    // If a registration fails, the service keeps running, but the core cannot call that procedure.
    sg_svc_register(&procedures[0], 1, IPC_PROG_GUI_BUF, IPC_SVC_VERSION, name);
    sg_svc_register(&procedures[1], 1, IPC_PROG_QR_BODY, IPC_SVC_VERSION, name);
}

IpcGuiFetcher::~IpcGuiFetcher() {
    std::free(sg_svc_info.procedures);
}

// Deliberate: accepts an identity of any length here, because the constructor of ComLibInterface
// rejects a wrong length.
void IpcGuiFetcher::loadIdFromIni() {
    std::ifstream file(SETTINGS_FILE);
    if (const auto identity = read_identity(file)) ID = *identity;
}

void IpcGuiFetcher::ipcGuiBufReceiver(const unsigned char* argument,
                                      _AMBA_IPC_SVC_RESULT_s_* result) {
    if (!m_published) {  // the core may call before the fetcher is constructed
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
        // Deliberate: munmap gets the address and size of the frame, not those of the mapping. This
        // hardly matters, because `release` runs only if the insertion into cached_buffers throws.
        const auto release = [&fetcher](unsigned char* start) {
            munmap(start, fetcher.m_mappedSize);
        };
        frame = std::shared_ptr<unsigned char>(fetcher.m_mappedBuffer, release);
        cached_buffers[buffer.phys_addr] = frame;
    }

    {
        const Lock lock(fetcher.m_comLibMutex);
        // Deliberate: passes the size of the most recently mapped frame instead of buffer.size,
        // because the service assumes that all frames have the same size.
        if (fetcher.m_comLib != nullptr) fetcher.m_comLib->push_frame(frame, fetcher.m_mappedSize);
    }
    clear(result);
}

// Deliberate: keeps a mapping that the kernel has refused, and only logs the refusal. The first
// access to the frame then raises a signal that ends the process.
void IpcGuiFetcher::mapPhysBuffer(IpcGuiFetcher& fetcher, const GuiBufferArg& buffer) {
    const uint64_t page = buffer.phys_addr & PAGE_MASK;
    const uint64_t offset = buffer.phys_addr & OFFSET_MASK;
    const uint32_t length = buffer.size + EXTRA_PAGE;
    const int memory = open("/dev/mem", O_RDWR | O_SYNC);
    const int open_error = errno;
    void* const start =
        mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, memory, static_cast<off_t>(page));
    if (start == MAP_FAILED) report_refusal(buffer.phys_addr, memory < 0 ? open_error : errno);
    fetcher.m_mappedBuffer = static_cast<unsigned char*>(start) + offset;
    fetcher.m_mappedSize = buffer.size;
    close(memory);
}

void IpcGuiFetcher::ipcQrBodyReceiver(const unsigned char* argument, _AMBA_IPC_SVC_RESULT_s_*) {
    const std::shared_ptr<IpcGuiFetcher> fetcher =
        getInstance();  // waits if the fetcher is being constructed
    std::shared_ptr<ComLibInterface> facade;
    try {
        const std::string body = reinterpret_cast<const char*>(argument);
        facade = std::make_shared<ComLibInterface>(body, fw);
    } catch (const std::bad_alloc& error) {
        write_line(STDERR_FILENO,
                   {"Error during alloc of mem for ComLibInterface\n", error.what()});
        std::exit(1);
    }
    {
        const Lock lock(fetcher->m_comLibMutex);
        fetcher->m_comLib.swap(facade);
    }
    // `facade` now holds the old ComLibInterface, so the return from this function destroys it.
}
