// The one object through which the GUI reaches the companion: frames go out, messages come in.
//
// One slot: the newest frame wins. A new frame overwrites a frame that the sender has not fetched
// yet, so a slow link never builds a backlog. Frames are accepted only while keep-alives arrive
// from the companion. Without a new frame, the last image is sent again every 500 ms.
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
    // Bytes of the largest frame that is accepted: 1280 x 960 pixels of 16 bits.
    static constexpr uint64_t FRAME_BUFFER_SIZE = 2'457'600;

    // Starts to search for a companion. `id` is the device's identity and must have exactly 5
    // bytes, or std::runtime_error is thrown; `fw` is the device's firmware version text.
    ComLibInterface(const std::string& id, const std::string& fw);
    // Drops the link. Takes up to about 1.5 s, or longer if a send blocks.
    ~ComLibInterface();
    ComLibInterface(const ComLibInterface&) = delete;
    ComLibInterface& operator=(const ComLibInterface&) = delete;

    // Offers a frame. A size of FRAME_BUFFER_SIZE means 1280 x 960 pixels. The caller must not pass
    // a larger size; push_frame does not check this. Any smaller size means 1024 x 768 pixels:
    // push_frame then reads 1,572,864 bytes, even if `size` is less. It copies the bytes and does
    // not wait for the network.
    void push_frame(std::shared_ptr<unsigned char> frame, uint64_t size);

  private:
    using Clock = std::chrono::steady_clock;

    void _set_resolution(uint64_t size) REQUIRES(m_frame_mutex);
    void _set_alive_time(Clock::time_point time);
    Clock::time_point _alive_time();
    void _on_message(uint16_t type, const std::vector<unsigned char>& payload);
    void _sender_loop();

    // Destroyed in reverse order: the controller first, because it uses the communicator.
    std::shared_ptr<VeltraneCommunicator> m_communicator;
    std::shared_ptr<NetworkController> m_controller;

    uint32_t m_width GUARDED_BY(m_frame_mutex) = 0;   // pixels; width of the frame in m_back
    uint32_t m_height GUARDED_BY(m_frame_mutex) = 0;  // pixels; height of the frame in m_back
    std::vector<unsigned char> m_front;  // the frame being sent; only the sender thread uses it
    std::vector<unsigned char> m_back GUARDED_BY(m_frame_mutex);
    std::thread m_sender_thread;
    std::condition_variable_any m_frame_cv;
    Mutex m_wait_mutex;  // held by the sender thread for its whole life
    Mutex m_frame_mutex;
    bool m_frame_ready GUARDED_BY(m_frame_mutex) = false;  // a new frame waits in m_back

    Clock::time_point m_last_alive GUARDED_BY(m_alive_mutex);  // when the last keep-alive came
    Mutex m_alive_mutex;

    std::atomic<bool> m_stop{false};
};
