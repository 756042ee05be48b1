#include "protocol/veltrane_communicator.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>

#include "base/write_line.h"
#include "protocol/crc32.h"
#include "protocol/image.h"

namespace {

constexpr size_t ID_SIZE = 5;             // bytes of a device id
constexpr size_t IMAGE_WORDS = 0x100000;  // 2 MiB, so that a typical screen encodes in place

// A number of the calling thread that no other thread ever had: unlike a thread's id, it tells
// whether bytes come from the connection that the buffered ones came from.
uint64_t connection_serial() {
    static std::atomic<uint64_t> last{0};
    thread_local const uint64_t serial = ++last;
    return serial;
}

std::vector<unsigned char> build_identity_frame(const std::string& id,
                                                const std::string& firmware) {
    if (id.size() != ID_SIZE) {
        throw std::runtime_error("ID size must be " + std::to_string(ID_SIZE) + " bytes");
    }
    const std::string payload = id + firmware;
    return BuildFrame(IdentityMessage, reinterpret_cast<const unsigned char*>(payload.data()),
                      payload.size());
}

template <typename Field>
Field read_field(const unsigned char* at) {
    Field field;
    std::memcpy(&field, at, sizeof field);
    return field;
}

}  // namespace

VeltraneCommunicator::VeltraneCommunicator(const std::string& device_id,
                                           const std::string& firmware)
    : m_device_id(device_id),
      m_firmware(firmware),
      m_identity_frame(build_identity_frame(device_id, firmware)),
      m_image_words(IMAGE_WORDS) {}

void VeltraneCommunicator::OnDataReceived(const unsigned char* data, uint64_t count,
                                          const std::function<void()>& signal, bool deliver_all) {
    const std::lock_guard lock(m_receive_mutex);
    // What a dead connection left must not swallow the first words of the next one.
    if (m_connection != connection_serial()) m_fill = 0;
    m_connection = connection_serial();

    if (m_fill + count > MAX_SIZE) {
        write_line(STDERR_FILENO, "VeltraneCommunicator: buffer overloaded!");
        m_fill = 0;
        return;
    }
    if (m_fill + count > m_receive_buffer.size()) m_receive_buffer.resize(m_fill + count);
    std::copy_n(data, count, m_receive_buffer.begin() + static_cast<ptrdiff_t>(m_fill));
    m_fill += count;

    while (true) {
        const std::function<void()> copy = signal;
        if (!_parse_frame(copy, deliver_all)) return;
    }
}

// True when a frame has been consumed and bytes remain.
bool VeltraneCommunicator::_parse_frame(const std::function<void()>& signal, bool deliver_all) {
    if (m_fill < STARTING_SEQUENCE.size()) return false;
    const auto begin = m_receive_buffer.cbegin();
    const auto end = begin + static_cast<ptrdiff_t>(m_fill);
    const auto start = std::search(begin, end, STARTING_SEQUENCE.begin(), STARTING_SEQUENCE.end());
    if (start == end) {
        m_fill = 0;  // with a start sequence that may have begun at the end; meant
        return false;
    }
    if (start != begin) _consume(static_cast<uint64_t>(start - begin));
    if (m_fill < HEADER_SIZE) return false;

    const unsigned char* const frame = m_receive_buffer.data();
    const auto length = read_field<uint32_t>(frame + LENGTH_OFFSET);
    const uint64_t size = HEADER_SIZE + uint64_t{length};
    if (size > MAX_SIZE) {
        m_fill = 0;
        return false;
    }
    if (m_fill < size) return false;
    if (Crc32(frame + HEADER_SIZE, length) == read_field<uint32_t>(frame + CHECKSUM_OFFSET)) {
        _dispatch(read_field<uint16_t>(frame + TYPE_OFFSET), frame + HEADER_SIZE, length, signal,
                  deliver_all);
    }
    // A damaged frame is skipped by its announced length, which is trusted all the same; meant.
    return _consume(size);
}

void VeltraneCommunicator::_dispatch(uint16_t type, const unsigned char* payload, uint32_t length,
                                     const std::function<void()>& signal, bool deliver_all) {
    switch (type) {
        case ControlMessage:
        case ButtonMessage:
        case DataMessage: {
            const std::lock_guard lock(m_handler_mutex);
            if (!m_message_handler || (!deliver_all && type != ControlMessage)) return;
            m_message_handler(type, {payload, payload + length});
            return;
        }
        case ConnectRequest:
            if (signal) signal();
            return;
        case IdentityRequest:
            SendIdentity();
            return;
        default:
            write_line(STDERR_FILENO, "VeltraneCommunicator: received unsupported message type");
    }
}

// Removes count bytes from the front; false when there are fewer, or when none remain.
bool VeltraneCommunicator::_consume(uint64_t count) {
    if (m_fill < count) return false;
    m_fill -= count;
    if (m_fill == 0) return false;
    std::memmove(m_receive_buffer.data(), m_receive_buffer.data() + count, m_fill);
    return true;
}

void VeltraneCommunicator::SetController(const std::shared_ptr<NetworkController>& controller) {
    const std::lock_guard lock(m_controller_mutex);
    m_controller = controller;
}

void VeltraneCommunicator::SetMessageHandler(const MessageHandler& handler) {
    const std::lock_guard lock(m_handler_mutex);
    m_message_handler = handler;
}

void VeltraneCommunicator::SendIdentity() {
    _send(m_identity_frame);
}

void VeltraneCommunicator::SendData(const unsigned char* data, uint64_t count) {
    if (data == nullptr || count == 0) return;
    _send(BuildFrame(DataMessage, data, count));
}

void VeltraneCommunicator::SendImage(const uint16_t* pixels, uint16_t width, uint16_t height) {
    if (pixels != nullptr && width != 0 && height != 0) {
        const uint64_t length = EncodeImage(pixels, width, height, m_image_words);
        m_last_image_frame = BuildFrame(
            ImageMessage, reinterpret_cast<const unsigned char*>(m_image_words.data()), length);
    }
    _send(m_last_image_frame);
}

std::vector<unsigned char> VeltraneCommunicator::GetIdentityFrame() {
    return m_identity_frame;
}

void VeltraneCommunicator::_send(const std::vector<unsigned char>& frame) {
    if (frame.empty()) return;  // too large to be built, or nothing to repeat
    std::shared_ptr<NetworkController> controller;
    {
        const std::lock_guard lock(m_controller_mutex);
        controller = m_controller.lock();
    }
    if (controller != nullptr) controller->send(frame.data(), frame.size());
}
