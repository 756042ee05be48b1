// Through this the real-time core hands its GUI to the service: it calls one procedure for each
// frame, with a physical address and a size, and another one now and then with a new identity (the
// QR body). Frames go to the current link facade; a new identity replaces the facade.
//
// Each buffer address is mapped once and stays mapped; its frames cost no mapping from then on.
// All static objects stay alive when the process exits: the core goes on calling.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "ipc/ambaipc.h"

class ComLibInterface;

constexpr uint32_t IPC_PROG_GUI_BUF = 0x70000004;
constexpr uint32_t IPC_PROG_QR_BODY = 0x70000005;
constexpr uint32_t IPC_SVC_VERSION = 1;  // of both programs

// What the core announces a frame with, little-endian.
struct GuiBufferArg {
    uint64_t phys_addr;  // of the frame's first byte
    uint32_t size;       // of the frame, in bytes
};

class IpcGuiFetcher {
  public:
    // The one fetcher of the process. Made on the first call: the identity is read from the
    // settings file, the first link facade is built (see ComLibInterface for what it throws), and
    // both programs are registered.
    static std::shared_ptr<IpcGuiFetcher> getInstance();

    ~IpcGuiFetcher();
    IpcGuiFetcher(const IpcGuiFetcher&) = delete;
    IpcGuiFetcher& operator=(const IpcGuiFetcher&) = delete;

    // The procedure for a frame: argument is a GuiBufferArg. Calls must not overlap. The frame's
    // memory may be reused once it returns. A frame that cannot be mapped ends the process.
    static void ipcGuiBufReceiver(const unsigned char* argument, _AMBA_IPC_SVC_RESULT_s_* result);

    // The procedure for an identity: argument is a zero-terminated text of five characters; any
    // other ends the process. Returns once the old facade is gone. The result is left alone.
    static void ipcQrBodyReceiver(const unsigned char* argument, _AMBA_IPC_SVC_RESULT_s_* result);

  private:
    IpcGuiFetcher();

    static void loadIdFromIni();
    static void mapPhysBuffer(IpcGuiFetcher& fetcher, const GuiBufferArg& buffer);

    // Of the latest mapping; touched by ipcGuiBufReceiver alone.
    unsigned char* m_mappedBuffer = nullptr;
    uint64_t m_mappedSize = 0;

    std::shared_ptr<ComLibInterface> m_comLib;
    std::mutex m_comLibMutex;  // guards m_comLib, and its life while a frame is being pushed

    static std::string& ID;        // of the first facade; no QR body changes it
    static const std::string& fw;  // firmware version text
    static std::shared_ptr<IpcGuiFetcher>& m_guiFetcher;
    static std::atomic<bool> m_published;  // m_guiFetcher is set and will not change any more
    static std::mutex m_instanceMutex;     // held while the fetcher is made
    // By physical address. Never shrinks; a display cycles through a few buffers.
    static std::map<uint64_t, std::shared_ptr<unsigned char>>& cached_buffers;
};
