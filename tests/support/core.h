// Plays the real-time core of the device: draws frames and calls the service.
#pragma once

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "devkit/ambaipc/caller.h"
#include "ipc/core_calls.h"
#include "tests/support/raw_companion.h"

namespace guilink::test {

constexpr uint64_t FRAME_MEMORY = 0x10000000;  // physical address of the first of three frames
constexpr uint64_t FRAME_STEP = 0x1000000;     // bytes from one frame to the next
constexpr uint32_t FRAME_SIZE = 1'572'864;     // bytes; 1024 x 768 pixels of 2 bytes

// Each function returns whether the service has accepted the call.
class Core {
  public:
    // Announces the memory at an address as a frame.
    bool push(uint64_t address = FRAME_MEMORY) {
        Bytes argument(12);
        std::memcpy(&argument[0], &address, sizeof address);
        std::memcpy(&argument[8], &FRAME_SIZE, sizeof FRAME_SIZE);
        return call(m_gui, argument);
    }

    bool send_qr_body(const std::string& body) {
        Bytes argument = bytes(body);
        argument.push_back(0);
        return call(m_qr, argument);
    }

  private:
    static bool call(AmbaipcCaller& caller, const Bytes& argument) {
        _AMBA_IPC_SVC_RESULT_s_ result = {};
        try {
            caller.call(0, argument, result);
            return true;
        } catch (const std::runtime_error&) {
            return false;
        }
    }

    AmbaipcCaller m_gui{IPC_PROG_GUI_BUF, IPC_SVC_VERSION};
    AmbaipcCaller m_qr{IPC_PROG_QR_BODY, IPC_SVC_VERSION};
};

// Announces three frames in turn until this object is destroyed, with a pause after each frame. If
// the pause is 0, announces frames as fast as the service accepts them.
class Frames {
  public:
    explicit Frames(std::chrono::milliseconds pause = 0ms)
        : m_thread([pause](const std::stop_token& stop) {
              Core core;
              for (uint64_t i = 0; !stop.stop_requested(); ++i) {
                  const bool taken = core.push(FRAME_MEMORY + i % 3 * FRAME_STEP);
                  if (!taken || pause != 0ms) std::this_thread::sleep_for(taken ? pause : 1ms);
              }
          }) {}

    // Draws pictures of `runs` runs of one pixel, 4 bytes each when encoded. The rest is blank.
    static void draw_pictures(size_t runs = 200'000) {
        std::fstream memory("/dev/mem", std::ios::in | std::ios::out | std::ios::binary);
        std::vector<uint16_t> pixels(200'000);
        for (uint64_t i = 0; i < 3; ++i) {
            for (size_t k = 0; k < runs; ++k) {
                pixels[k] = static_cast<uint16_t>(0x1000 + (k * 7 + i) % 0xE000);
            }
            memory.seekp(static_cast<std::streamoff>(FRAME_MEMORY + i * FRAME_STEP));
            memory.write(reinterpret_cast<const char*>(pixels.data()),
                         static_cast<std::streamsize>(pixels.size() * sizeof pixels[0]));
        }
    }

  private:
    const std::jthread m_thread;
};

}  // namespace guilink::test
