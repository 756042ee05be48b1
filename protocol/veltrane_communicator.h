// Turns the bytes of connections into messages, and messages into frames. Reassembles and checks
// received bytes, passes messages to the message handler, and answers IdentityRequests itself. Owns
// no socket and no thread; sends through the controller, and sends nothing without a controller.
//
// Keeps each connection's incomplete frame separately. Drops a connection's kept and newly received
// bytes if they contain no start sequence, if they announce a frame above MAX_SIZE, or if they are
// more than MAX_SIZE; later frames are not affected. All connections together keep at most MAX_SIZE
// bytes. Above this limit, the connection that keeps the most bytes loses them; the link loses its
// bytes only if no other connection keeps any.
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

    // `device_id` must have exactly 5 bytes, or std::runtime_error is thrown; `firmware` may be any
    // text.
    VeltraneCommunicator(const std::string& device_id, const std::string& firmware);

    // Calls are serialised. Each thread must pass the bytes of one connection only, because an
    // incomplete frame at the end of `data` waits for the next call from the same thread. A `count`
    // of 0 changes nothing. If the message handler or `signal` throws, the exception goes to the
    // caller, and the frame that caused the exception stays buffered.
    void OnDataReceived(const unsigned char* data, uint64_t count,
                        const std::function<void()>& signal, bool deliver_all) override;
    void OnConnectionEnd() override;
    void SetController(const std::shared_ptr<NetworkController>& controller) override;
    // When SetMessageHandler returns, the previous handler is not running and will not be called
    // again. The handler must not call SetMessageHandler.
    void SetMessageHandler(const MessageHandler& handler) override;
    void SendIdentity() override;
    // Sends a DataMessage. Does nothing if `data` is null or `count` is 0.
    void SendData(const unsigned char* data, uint64_t count) override;
    // Encodes and sends width x height pixels. If `pixels` is null, or the width or height is 0,
    // sends the last image frame again, if there is one. Only one thread at a time may call
    // SendImage.
    void SendImage(const uint16_t* pixels, uint16_t width, uint16_t height) override;
    std::vector<unsigned char> GetIdentityFrame() override;

  private:
    struct Stream;

    bool _parse_frame(Stream& stream, const std::function<void()>& signal, bool deliver_all);
    void _dispatch(uint16_t type, const unsigned char* payload, uint32_t length,
                   const std::function<void()>& signal, bool deliver_all);
    void _keep(uint64_t connection, const Stream& stream, bool is_link) REQUIRES(m_receive_mutex);
    void _send(const unsigned char* frame, uint64_t size);

    Mutex m_receive_mutex;  // lock it before the two mutexes below
    // Incomplete frames, by the connection's number; no entry is empty.
    std::map<uint64_t, std::vector<unsigned char>> m_receive_buffers GUARDED_BY(m_receive_mutex);

    Mutex m_handler_mutex;  // held while the handler runs
    MessageHandler m_message_handler GUARDED_BY(m_handler_mutex);

    Mutex m_controller_mutex;
    std::weak_ptr<NetworkController> m_controller GUARDED_BY(m_controller_mutex);

    const std::string m_device_id;
    const std::string m_firmware;
    const std::vector<unsigned char> m_identity_frame;

    // Only the sending thread uses these members. The two vectors swap with every image, so that
    // nothing is copied or allocated.
    std::vector<uint16_t> m_image_frame;       // the next image is encoded here
    std::vector<uint16_t> m_last_image_frame;  // the image to repeat
    uint64_t m_last_image_size = 0;            // bytes; 0 if there is no last image
};
