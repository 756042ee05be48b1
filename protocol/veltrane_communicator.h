// Turns the bytes of connections into messages, and messages into frames. Received bytes are
// reassembled, checked and dispatched: messages go to the message handler, requests are answered
// here. Owns no socket and no thread; sends through the controller, and drops what it is given
// while there is no controller.
//
// The part of a frame that a connection has not completed yet is kept for that connection alone. A
// damaged stream loses no more than what is buffered: all of it goes without a start sequence, with
// an announced frame above MAX_SIZE, or with more than MAX_SIZE bytes pending. All connections
// together keep at most MAX_SIZE bytes; beyond that the one that keeps the most loses them, the
// link last.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "net/network_controller.h"
#include "protocol/frame.h"

class VeltraneCommunicator : public NetworkController::NetworkWorker {
  public:
    static constexpr const std::array<unsigned char, 32>& STARTING_SEQUENCE = ::STARTING_SEQUENCE;

    using MessageHandler = std::function<void(uint16_t type, std::vector<unsigned char> payload)>;

    // device_id must have exactly 5 bytes, or std::runtime_error is thrown; firmware is any
    // text.
    VeltraneCommunicator(const std::string& device_id, const std::string& firmware);

    // Calls are serialised. A thread receives for one connection: the part of a frame at the end of
    // data waits for the next call from the same thread, and a length of 0 changes nothing. An
    // exception of handler or signal goes to the caller, and its frame stays buffered.
    void OnDataReceived(const unsigned char* data, uint64_t count,
                        const std::function<void()>& signal, bool deliver_all) override;
    void OnConnectionEnd() override;
    void SetController(const std::shared_ptr<NetworkController>& controller) override;
    // When this returns, the previous handler is not running and will not be called again. Must not
    // be called by the handler.
    void SetMessageHandler(const MessageHandler& handler) override;
    void SendIdentity() override;
    // Sends a DataMessage; does nothing without data or when count is 0.
    void SendData(const unsigned char* data, uint64_t count) override;
    // Encodes and sends width x height pixels. Without pixels, or with a width or height of 0, the
    // last image frame is sent again, if there is one. One thread at a time.
    void SendImage(const uint16_t* pixels, uint16_t width, uint16_t height) override;
    std::vector<unsigned char> GetIdentityFrame() override;

  private:
    struct Stream;

    bool _parse_frame(Stream& stream, const std::function<void()>& signal, bool deliver_all);
    void _dispatch(uint16_t type, const unsigned char* payload, uint32_t length,
                   const std::function<void()>& signal, bool deliver_all);
    void _keep(uint64_t connection, const Stream& stream, bool is_link) REQUIRES(m_receive_mutex);
    void _send(const unsigned char* frame, uint64_t size);

    Mutex m_receive_mutex;  // taken before the next two
    // Incomplete frames, by connection; an entry is never empty.
    std::map<uint64_t, std::vector<unsigned char>> m_receive_buffers GUARDED_BY(m_receive_mutex);

    Mutex m_handler_mutex;  // held for one call of the handler
    MessageHandler m_message_handler GUARDED_BY(m_handler_mutex);

    Mutex m_controller_mutex;
    std::weak_ptr<NetworkController> m_controller GUARDED_BY(m_controller_mutex);

    const std::string m_device_id;
    const std::string m_firmware;
    const std::vector<unsigned char> m_identity_frame;

    // Only touched by the sending thread. They swap roles with every image, so that nothing is
    // copied or allocated; vectors of words, because words are what is encoded.
    std::vector<uint16_t> m_image_frame;       // the next one is encoded here
    std::vector<uint16_t> m_last_image_frame;  // the one to be repeated
    uint64_t m_last_image_size = 0;            // its bytes; 0 if there is none
};
