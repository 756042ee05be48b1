// What the real-time core calls: ipcGuiBufReceiver passes a frame to ComLibInterface, and
// ipcQrBodyReceiver replaces the ComLibInterface by one with a new identity.
//
// A frame buffer stays mapped, so that only its first frame costs system calls. No static object is
// destroyed, because the core may still call during exit.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "ipc/ambaipc.h"
#include "ipc/core_calls.h"

class ComLibInterface;

class IpcGuiFetcher {
  public:
    // Returns the only instance. The first call constructs it: reads the identity from the settings
    // file, constructs a ComLibInterface (which may throw), and registers the procedures below.
    static std::shared_ptr<IpcGuiFetcher> getInstance();

    ~IpcGuiFetcher();
    IpcGuiFetcher(const IpcGuiFetcher&) = delete;
    IpcGuiFetcher& operator=(const IpcGuiFetcher&) = delete;

    // Takes a frame; `argument` is a GuiBufferArg. Calls must not overlap. After the call, the core
    // may reuse the frame's memory. If the frame cannot be mapped, the process ends.
    static void ipcGuiBufReceiver(const unsigned char* argument, _AMBA_IPC_SVC_RESULT_s_* result);

    // Takes a new identity: a zero-terminated text of five characters; any other length ends the
    // process. Destroys the old ComLibInterface. Does not write to `result`.
    static void ipcQrBodyReceiver(const unsigned char* argument, _AMBA_IPC_SVC_RESULT_s_* result);

  private:
    IpcGuiFetcher();

    static void loadIdFromIni();
    static void mapPhysBuffer(IpcGuiFetcher& fetcher, const GuiBufferArg& buffer);

    // Address and size of the most recently mapped frame. They need no mutex, because calls of
    // ipcGuiBufReceiver do not overlap.
    unsigned char* m_mappedBuffer = nullptr;
    uint64_t m_mappedSize = 0;

    std::shared_ptr<ComLibInterface> m_comLib GUARDED_BY(m_comLibMutex);
    Mutex m_comLibMutex;  // held while push_frame uses *m_comLib

    static std::string& ID;        // identity of the first ComLibInterface; does not change later
    static const std::string& fw;  // firmware version text
    static std::shared_ptr<IpcGuiFetcher>& m_guiFetcher;
    static std::atomic<bool> m_published;  // if true, m_guiFetcher is set and will not change
    static Mutex m_instanceMutex;          // held while the fetcher is constructed
    // By physical address. Never removed, because the core uses only a few buffers.
    static std::map<uint64_t, std::shared_ptr<unsigned char>>& cached_buffers;
};
