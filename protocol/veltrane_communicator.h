// Implements the link protocol. Reassembles and checks received frames, passes their messages to
// the message handler, and answers IdentityRequests itself. Builds frames, and sends them through
// the controller. Without a controller, sends nothing.
//
// Keeps the incomplete frame of each connection, until the connection's thread has ended. Drops the
// bytes of a connection if they contain no start sequence, if they announce a frame above MAX_SIZE,
// or if they are more than MAX_SIZE. If the incomplete frames of all connections together exceed
// MAX_SIZE, drops the largest one, but the link's frame only if there is no other.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "net/network_controller.h"
#include "wire/frame.h"

class VeltraneCommunicator : public NetworkController::NetworkWorker {
  public:
    static constexpr const std::array<unsigned char, 32>& STARTING_SEQUENCE = ::STARTING_SEQUENCE;

    using MessageHandler = std::function<void(uint16_t type, std::vector<unsigned char> payload)>;

    // If `device_id` does not have exactly 5 bytes, throws std::runtime_error. `firmware` may be
    // any text.
    VeltraneCommunicator(const std::string& device_id, const std::string& firmware);

    // Each thread must pass the bytes of one connection only, because an incomplete frame is
    // continued by the next call from the same thread. Calls may overlap; only the message handler
    // is called once at a time. A `count` of 0 changes nothing. If the message handler or `signal`
    // throws, the exception goes to the caller, and the frame stays buffered.
    void OnDataReceived(const unsigned char* data, uint64_t count,
                        const std::function<void()>& signal, bool deliver_all) override;
    void SetController(const std::shared_ptr<NetworkController>& controller) override;
    // When SetMessageHandler returns, the previous handler is not running and will not be called
    // again. The handler must not call SetMessageHandler.
    void SetMessageHandler(const MessageHandler& handler) override;
    void SendIdentity() override;
    // Sends a DataMessage. Does nothing if `data` is null or `count` is 0.
    void SendData(const unsigned char* data, uint64_t count) override;
    // Encodes and sends width x height pixels. If `pixels` is null, or the width or the height is
    // 0, sends the previous image again, if there is one. Calls of SendImage must not overlap.
    void SendImage(const uint16_t* pixels, uint16_t width, uint16_t height) override;
    std::vector<unsigned char> GetIdentityFrame() override;

  private:
    struct Stream;

    bool _parse_frame(Stream& stream, const std::function<void()>& signal, bool deliver_all);
    void _dispatch(uint16_t type, const unsigned char* payload, uint32_t length,
                   const std::function<void()>& signal, bool deliver_all);
    std::vector<unsigned char> _take_leftover();
    void _keep(std::vector<unsigned char>&& leftover, bool is_link);
    void _send(const unsigned char* frame, uint64_t size);

    // Identifies a connection: its thread holds the only share, for as long as the thread runs.
    using Connection = std::shared_ptr<const void>;
    static const Connection& _this_connection();

    Mutex m_receive_mutex;  // never held while a frame is handled
    // The incomplete frames. No entry is empty.
    std::map<Connection::weak_type, std::vector<unsigned char>, std::owner_less<>> m_receive_buffers
        GUARDED_BY(m_receive_mutex);

    Mutex m_handler_mutex;  // held while the handler runs
    MessageHandler m_message_handler GUARDED_BY(m_handler_mutex);

    Mutex m_controller_mutex;
    std::weak_ptr<NetworkController> m_controller GUARDED_BY(m_controller_mutex);

    const std::string m_device_id;
    const std::string m_firmware;
    const std::vector<unsigned char> m_identity_frame;

    // Only SendImage uses these members. It swaps the two vectors after it has encoded an image, so
    // that nothing is copied or allocated.
    std::vector<uint16_t> m_image_frame;       // the next image is encoded here
    std::vector<uint16_t> m_last_image_frame;  // the previous image, kept to be sent again
    uint64_t m_last_image_size = 0;            // bytes; 0 if there is no previous image
};
