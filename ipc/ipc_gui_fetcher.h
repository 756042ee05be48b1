// Receives the GUI from the real-time core. For each frame, the core calls one procedure with the
// frame's physical address and size. When the device gets a new identity (the QR body), which is
// rare, the core calls another procedure. The current ComLibInterface sends the frames to the
// companion; a new identity replaces this object.
//
// Each buffer address is mapped once and stays mapped, so later frames at that address cost no
// system call. No static object is destroyed at exit, because the core may still call then.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "ipc/ambaipc.h"

class ComLibInterface;

constexpr uint32_t IPC_PROG_GUI_BUF = 0x70000004;
constexpr uint32_t IPC_PROG_QR_BODY = 0x70000005;
constexpr uint32_t IPC_SVC_VERSION = 1;  // both programs have this version

// The argument of a frame call, little-endian.
struct GuiBufferArg {
    uint64_t phys_addr;  // address of the frame's first byte
    uint32_t size;       // size of the frame in bytes
};

class IpcGuiFetcher {
  public:
    // Returns the only instance. The first call constructs it: reads the identity from the settings
    // file, constructs the first ComLibInterface (see its constructor for what it throws), and
    // registers the procedures of both IPC programs.
    static std::shared_ptr<IpcGuiFetcher> getInstance();

    ~IpcGuiFetcher();
    IpcGuiFetcher(const IpcGuiFetcher&) = delete;
    IpcGuiFetcher& operator=(const IpcGuiFetcher&) = delete;

    // The procedure for a frame; `argument` is a GuiBufferArg. Calls must not overlap. When a call
    // returns, the core may reuse the frame's memory. If the frame cannot be mapped, the process
    // ends.
    static void ipcGuiBufReceiver(const unsigned char* argument, _AMBA_IPC_SVC_RESULT_s_* result);

    // The procedure for a new identity; `argument` is a zero-terminated text of five characters.
    // Any other length ends the process. Replaces the ComLibInterface, and returns after the old
    // one has been destroyed. Does not write to `result`.
    static void ipcQrBodyReceiver(const unsigned char* argument, _AMBA_IPC_SVC_RESULT_s_* result);

  private:
    IpcGuiFetcher();

    static void loadIdFromIni();
    static void mapPhysBuffer(IpcGuiFetcher& fetcher, const GuiBufferArg& buffer);

    // Address and size of the frame at the latest mapping. Only frame calls use these members.
    unsigned char* m_mappedBuffer = nullptr;
    uint64_t m_mappedSize = 0;

    std::shared_ptr<ComLibInterface> m_comLib GUARDED_BY(m_comLibMutex);
    Mutex m_comLibMutex;  // held during push_frame, so that *m_comLib is not destroyed meanwhile

    static std::string& ID;        // identity of the first ComLibInterface; does not change later
    static const std::string& fw;  // firmware version text
    static std::shared_ptr<IpcGuiFetcher>& m_guiFetcher;
    static std::atomic<bool> m_published;  // if true, m_guiFetcher is set and will not change
    static Mutex m_instanceMutex;          // held while the fetcher is constructed
    // Mappings by physical address. No mapping is removed, because a display cycles through only a
    // few buffers.
    static std::map<uint64_t, std::shared_ptr<unsigned char>>& cached_buffers;
};
