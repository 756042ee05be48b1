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
constexpr size_t KEPT = 0x10000;          // bytes of buffer that the next connection takes over
constexpr size_t IMAGE_WORDS = 0x100000;  // 2 MiB, so that a typical screen encodes in place

// An image is encoded into its frame, behind room for the header.
constexpr size_t HEADER_WORDS = HEADER_SIZE / sizeof(uint16_t);
static_assert(HEADER_WORDS * sizeof(uint16_t) == HEADER_SIZE);

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

// The first start sequence; null when there is none. Mostly it is where the last frame ended.
const unsigned char* find_start(const unsigned char* data, uint64_t count) {
    const auto& start = STARTING_SEQUENCE;
    if (count < start.size()) return nullptr;
    if (std::memcmp(data, start.data(), start.size()) == 0) return data;
    return static_cast<const unsigned char*>(memmem(data, count, start.data(), start.size()));
}

unsigned char* bytes_of(std::vector<uint16_t>& words) {
    return reinterpret_cast<unsigned char*>(words.data());
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
      m_image_frame(HEADER_WORDS + IMAGE_WORDS),
      m_last_image_frame(HEADER_WORDS + IMAGE_WORDS) {}

void VeltraneCommunicator::OnDataReceived(const unsigned char* data, uint64_t count,
                                          const std::function<void()>& signal, bool deliver_all) {
    const std::lock_guard lock(m_receive_mutex);
    // What a dead connection left must not swallow the first words of the next one, nor stay.
    if (m_connection != connection_serial()) {
        if (m_receive_buffer.size() > KEPT) std::vector<unsigned char>().swap(m_receive_buffer);
        m_begin = m_end = 0;
    }
    m_connection = connection_serial();

    const uint64_t left = m_end - m_begin;
    if (left + count > MAX_SIZE) {
        write_line(STDERR_FILENO, "VeltraneCommunicator: buffer overloaded!");
        m_begin = m_end;
        return;
    }
    // What the last call left behind its last frame moves once, not once for every frame.
    if (m_begin != 0) {
        std::memmove(m_receive_buffer.data(), m_receive_buffer.data() + m_begin, left);
        m_begin = 0;
    }
    m_end = left + count;
    if (m_end > m_receive_buffer.size()) m_receive_buffer.resize(m_end);
    std::copy_n(data, count, m_receive_buffer.begin() + static_cast<ptrdiff_t>(left));

    while (true) {
        const std::function<void()> copy = signal;
        if (!_parse_frame(copy, deliver_all)) return;
    }
}

// True when a frame has been consumed and bytes remain.
bool VeltraneCommunicator::_parse_frame(const std::function<void()>& signal, bool deliver_all) {
    if (m_end - m_begin < STARTING_SEQUENCE.size()) return false;
    const unsigned char* const begin = m_receive_buffer.data() + m_begin;
    const unsigned char* const frame = find_start(begin, m_end - m_begin);
    if (frame == nullptr) {
        m_begin = m_end;  // with a start sequence that may have begun at the end; meant
        return false;
    }
    if (frame != begin) m_begin += static_cast<uint64_t>(frame - begin);
    const uint64_t left = m_end - m_begin;
    if (left < HEADER_SIZE) return false;

    const auto length = read_field<uint32_t>(frame + LENGTH_OFFSET);
    const uint64_t size = HEADER_SIZE + uint64_t{length};
    if (size > MAX_SIZE) {
        m_begin = m_end;
        return false;
    }
    if (left < size) return false;
    if (Crc32(frame + HEADER_SIZE, length) == read_field<uint32_t>(frame + CHECKSUM_OFFSET)) {
        _dispatch(read_field<uint16_t>(frame + TYPE_OFFSET), frame + HEADER_SIZE, length, signal,
                  deliver_all);
    }
    // A damaged frame is skipped by its announced length, which is trusted all the same; meant.
    m_begin += size;
    return m_begin != m_end;
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

void VeltraneCommunicator::SetController(const std::shared_ptr<NetworkController>& controller) {
    const std::lock_guard lock(m_controller_mutex);
    m_controller = controller;
}

void VeltraneCommunicator::SetMessageHandler(const MessageHandler& handler) {
    const std::lock_guard lock(m_handler_mutex);
    m_message_handler = handler;
}

void VeltraneCommunicator::SendIdentity() {
    _send(m_identity_frame.data(), m_identity_frame.size());
}

void VeltraneCommunicator::SendData(const unsigned char* data, uint64_t count) {
    if (data == nullptr || count == 0) return;
    const std::vector<unsigned char> frame = BuildFrame(DataMessage, data, count);
    _send(frame.data(), frame.size());
}

void VeltraneCommunicator::SendImage(const uint16_t* pixels, uint16_t width, uint16_t height) {
    if (pixels != nullptr && width != 0 && height != 0) {
        const uint64_t length = EncodeImage(pixels, width, height, m_image_frame, HEADER_WORDS);
        m_image_frame.swap(m_last_image_frame);
        m_last_image_size = FinishFrame(bytes_of(m_last_image_frame), ImageMessage, length);
    }
    _send(bytes_of(m_last_image_frame), m_last_image_size);
}

std::vector<unsigned char> VeltraneCommunicator::GetIdentityFrame() {
    return m_identity_frame;
}

void VeltraneCommunicator::_send(const unsigned char* frame, uint64_t size) {
    if (size == 0) return;  // too large to be built, or nothing to repeat
    std::shared_ptr<NetworkController> controller;
    {
        const std::lock_guard lock(m_controller_mutex);
        controller = m_controller.lock();
    }
    if (controller != nullptr) controller->send(frame, size);
}
