// Turns the bytes of a connection into messages, and messages into frames. Received bytes are
// reassembled, checked and dispatched: what the companion says goes to the message handler, its
// requests are answered here. Owns no socket and no thread; sends through the controller, and
// drops what it is given while there is none.
//
// A stream that is damaged loses data, never more than what is buffered: without a start sequence,
// with an announced frame above MAX_SIZE or with more than MAX_SIZE bytes pending all of it goes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "net/network_controller.h"
#include "protocol/frame.h"

class VeltraneCommunicator : public NetworkController::NetworkWorker {
  public:
    static constexpr const std::array<unsigned char, 32>& STARTING_SEQUENCE = ::STARTING_SEQUENCE;

    using MessageHandler = std::function<void(uint16_t type, std::vector<unsigned char> payload)>;

    // device_id has exactly 5 bytes, or std::runtime_error is thrown; firmware is any text.
    VeltraneCommunicator(const std::string& device_id, const std::string& firmware);

    // Calls are serialised. A trailing part of a frame is kept for the next call from the same
    // thread; a thread receives for one connection, so a call from another thread starts afresh.
    // An exception of handler or signal goes to the caller, the frame stays in the buffer.
    void OnDataReceived(const unsigned char* data, uint64_t count,
                        const std::function<void()>& signal, bool deliver_all) override;
    void SetController(const std::shared_ptr<NetworkController>& controller) override;
    // When this returns, the previous handler is not running and will not be called again. Must not
    // be called from the handler.
    void SetMessageHandler(const MessageHandler& handler) override;
    void SendIdentity() override;
    // Sends a DataMessage; does nothing without data or when count is 0.
    void SendData(const unsigned char* data, uint64_t count) override;
    // Encodes and sends width x height pixels. Without pixels, or with a width or height of 0, the
    // last image frame is sent again, if there is one. One thread at a time.
    void SendImage(const uint16_t* pixels, uint16_t width, uint16_t height) override;
    std::vector<unsigned char> GetIdentityFrame() override;

  private:
    bool _parse_frame(const std::function<void()>& signal, bool deliver_all);
    void _dispatch(uint16_t type, const unsigned char* payload, uint32_t length,
                   const std::function<void()>& signal, bool deliver_all);
    void _send(const unsigned char* frame, uint64_t size);

    std::mutex m_receive_mutex;                   // guards the next four; taken before all others
    std::vector<unsigned char> m_receive_buffer;  // a large one goes with its connection
    uint64_t m_begin = 0;                         // of the valid bytes
    uint64_t m_end = 0;                           // likewise
    uint64_t m_connection = 0;                    // whose bytes they are

    std::mutex m_handler_mutex;  // held for one call of the handler
    MessageHandler m_message_handler;

    std::mutex m_controller_mutex;  // held while the reference is copied
    std::weak_ptr<NetworkController> m_controller;

    const std::string m_device_id;
    const std::string m_firmware;
    const std::vector<unsigned char> m_identity_frame;

    // Only the sender touches them. They swap roles with every image, so that nothing is copied or
    // allocated; a vector of words, since these are what is encoded.
    std::vector<uint16_t> m_image_frame;       // the next one is encoded here
    std::vector<uint16_t> m_last_image_frame;  // the one to be repeated
    uint64_t m_last_image_size = 0;            // its bytes; 0 when there is none
};
