// The one object through which the GUI reaches the companion: frames go out, messages come in.
//
// One slot: the newest frame wins; a frame that the sender has not taken is overwritten, so a slow
// link never builds a backlog. A frame is taken only while the companion shows signs of life. With
// nothing new the last image is sent again every 500 ms.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class NetworkController;
class VeltraneCommunicator;

class ComLibInterface {
  public:
    // Bytes of a 1280 x 960 frame of 16-bit pixels, the largest that is taken.
    static constexpr uint64_t FRAME_BUFFER_SIZE = 2'457'600;

    // Starts to search for a companion at once. id is the device's identity, exactly 5 bytes, or
    // std::runtime_error is thrown; fw is its firmware version text.
    ComLibInterface(const std::string& id, const std::string& fw);
    // Drops the link; takes up to about 1.5 s, more while a send blocks.
    ~ComLibInterface();
    ComLibInterface(const ComLibInterface&) = delete;
    ComLibInterface& operator=(const ComLibInterface&) = delete;

    // Offers a frame of size bytes. FRAME_BUFFER_SIZE means 1280 x 960; every smaller size means
    // 1024 x 768, and 1,572,864 bytes are read whatever it is. Larger ones must not be offered.
    // The bytes are copied before the call returns; blocks no longer than that.
    void push_frame(std::shared_ptr<unsigned char> frame, uint64_t size);

  private:
    using Clock = std::chrono::steady_clock;

    void _set_resolution(uint64_t size);
    void _set_alive_time(Clock::time_point time);
    Clock::time_point _alive_time();
    void _on_message(uint16_t type, const std::vector<unsigned char>& payload);
    void _sender_loop();

    // Destroyed in reverse order: the controller first, whose worker needs the communicator.
    std::shared_ptr<VeltraneCommunicator> m_communicator;
    std::shared_ptr<NetworkController> m_controller;

    uint32_t m_width = 0;                // of the frame in m_back
    uint32_t m_height = 0;               // likewise
    std::vector<unsigned char> m_front;  // the frame being sent; only the sender touches it
    std::vector<unsigned char> m_back;   // what push_frame fills
    std::thread m_sender_thread;
    std::condition_variable m_frame_cv;
    std::mutex m_wait_mutex;     // held by the sender for its whole life
    std::mutex m_frame_mutex;    // guards m_back, its width and height, m_frame_ready and the swap
    bool m_frame_ready = false;  // a new frame waits in m_back

    Clock::time_point m_last_alive;  // of the last keep-alive
    std::mutex m_alive_mutex;        // guards m_last_alive

    std::atomic<bool> m_stop{false};
};
