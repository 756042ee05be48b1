// Sends the GUI's frames to the companion, and handles the companion's messages.
//
// At most one frame waits to be sent. A newer frame replaces it, so a slow link builds no backlog.
// Frames are accepted only while keep-alives arrive from the companion. Without a new frame, the
// last image is sent again every 500 ms.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"

class NetworkController;
class VeltraneCommunicator;

class ComLibInterface {
  public:
    // Size of the largest frame in bytes: 1280 x 960 pixels of 16 bits.
    static constexpr uint64_t FRAME_BUFFER_SIZE = 2'457'600;

    // Starts to search for a companion. `id` is the device's identity; if it does not have exactly
    // 5 bytes, throws std::runtime_error. `fw` is the device's firmware version text.
    ComLibInterface(const std::string& id, const std::string& fw);
    // Closes the link. Blocks for up to about 1.5 s.
    ~ComLibInterface();
    ComLibInterface(const ComLibInterface&) = delete;
    ComLibInterface& operator=(const ComLibInterface&) = delete;

    // Copies a frame, without waiting for the network. If `size` is FRAME_BUFFER_SIZE, the frame
    // has 1280 x 960 pixels. If `size` is smaller, the frame has 1024 x 768 pixels, and push_frame
    // always reads 1,572,864 bytes. `size` must not be larger, but push_frame does not check this.
    void push_frame(std::shared_ptr<unsigned char> frame, uint64_t size);

  private:
    using Clock = std::chrono::steady_clock;

    void _set_resolution(uint64_t size) REQUIRES(m_frame_mutex);
    void _set_alive_time(Clock::time_point time);
    Clock::time_point _alive_time();
    void _on_message(uint16_t type, const std::vector<unsigned char>& payload);
    void _sender_loop();

    // Keep this order, so that the controller is destroyed before the communicator. The controller
    // uses the communicator.
    std::shared_ptr<VeltraneCommunicator> m_communicator;
    std::shared_ptr<NetworkController> m_controller;

    uint32_t m_width GUARDED_BY(m_frame_mutex) = 0;   // pixels; width of the frame in m_back
    uint32_t m_height GUARDED_BY(m_frame_mutex) = 0;  // pixels; height of the frame in m_back
    std::vector<unsigned char> m_front;  // the frame being sent; only the sender thread uses it
    std::vector<unsigned char> m_back GUARDED_BY(m_frame_mutex);
    std::thread m_sender_thread;
    std::condition_variable_any m_frame_cv;
    Mutex m_wait_mutex;  // the sender thread holds this mutex as long as it runs
    Mutex m_frame_mutex;
    bool m_frame_ready GUARDED_BY(m_frame_mutex) = false;  // true if m_back holds a new frame

    Clock::time_point m_last_alive GUARDED_BY(m_alive_mutex);  // when the latest keep-alive arrived
    Mutex m_alive_mutex;

    std::atomic<bool> m_stop{false};
};
