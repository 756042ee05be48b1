#include "protocol/veltrane_communicator.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "base/write_line.h"
#include "protocol/image.h"
#include "wire/crc32.h"

namespace {

constexpr size_t IMAGE_WORDS = 0x100000;  // 2 MiB; enough for a typical screen

// An image is encoded directly into its frame, after the space for the header.
constexpr size_t HEADER_WORDS = HEADER_SIZE / sizeof(uint16_t);
static_assert(HEADER_WORDS * sizeof(uint16_t) == HEADER_SIZE);

std::vector<unsigned char> build_identity_frame(const std::string& id,
                                                const std::string& firmware) {
    if (id.size() != ID_SIZE) {
        throw std::runtime_error("ID size must be " + std::to_string(ID_SIZE) + " bytes");
    }
    const std::string payload = id + firmware;
    return BuildFrame(IdentityMessage, reinterpret_cast<const unsigned char*>(payload.data()),
                      payload.size());
}

// Returns the position of the first start sequence, or null. Checks the beginning of `data` first,
// because `data` usually begins with a start sequence.
const unsigned char* find_start(const unsigned char* data, uint64_t count) {
    const auto& start = STARTING_SEQUENCE;
    if (count < start.size()) return nullptr;
    if (std::memcmp(data, start.data(), start.size()) == 0) return data;
    return static_cast<const unsigned char*>(memmem(data, count, start.data(), start.size()));
}

unsigned char* bytes_of(std::vector<uint16_t>& words) {
    return reinterpret_cast<unsigned char*>(words.data());
}

}  // namespace

VeltraneCommunicator::VeltraneCommunicator(const std::string& device_id,
                                           const std::string& firmware)
    : m_device_id(device_id),
      m_firmware(firmware),
      m_identity_frame(build_identity_frame(device_id, firmware)),
      m_image_frame(HEADER_WORDS + IMAGE_WORDS),
      m_last_image_frame(HEADER_WORDS + IMAGE_WORDS) {}

// The received bytes that are not consumed yet.
struct VeltraneCommunicator::Stream {
    const unsigned char* begin;
    const unsigned char* end;

    uint64_t size() const { return static_cast<uint64_t>(end - begin); }
};

const VeltraneCommunicator::Connection& VeltraneCommunicator::_this_connection() {
    thread_local const Connection connection = std::make_shared<char>();
    return connection;
}

void VeltraneCommunicator::OnDataReceived(const unsigned char* data, uint64_t count,
                                          const std::function<void()>& signal, bool deliver_all) {
    if (count == 0) return;
    std::vector<unsigned char> buffer = _take_leftover();
    if (buffer.size() + count > MAX_SIZE) {
        write_line(STDERR_FILENO, "VeltraneCommunicator: buffer overloaded!");
        return;
    }

    // Read the frames in place, unless `data` continues an incomplete frame.
    Stream stream = {data, data + count};
    if (!buffer.empty()) {
        buffer.insert(buffer.end(), data, data + count);
        stream = {buffer.data(), buffer.data() + buffer.size()};
    }
    const auto keep = [&] {
        if (stream.begin != buffer.data()) buffer = {stream.begin, stream.end};
        _keep(std::move(buffer), deliver_all);
    };
    try {
        bool bytes_remain;
        do {
            const std::function<void()> copy = signal;
            bytes_remain = _parse_frame(stream, copy, deliver_all);
        } while (bytes_remain && !NetworkController::connection_dropped());
    } catch (...) {
        keep();
        throw;
    }
    keep();
}

// Returns true if a frame has been consumed and bytes remain.
bool VeltraneCommunicator::_parse_frame(Stream& stream, const std::function<void()>& signal,
                                        bool deliver_all) {
    if (stream.size() < STARTING_SEQUENCE.size()) return false;
    const unsigned char* const frame = find_start(stream.begin, stream.size());
    if (frame == nullptr) {
        // Deliberate: drops all bytes, even if they end with a partial start sequence.
        stream.begin = stream.end;
        return false;
    }
    stream.begin = frame;
    if (stream.size() < HEADER_SIZE) return false;

    const FrameHeader header = ReadHeader(frame);
    const uint64_t size = HEADER_SIZE + uint64_t{header.length};
    if (size > MAX_SIZE) {
        stream.begin = stream.end;
        return false;
    }
    if (stream.size() < size) return false;
    if (Crc32(frame + HEADER_SIZE, header.length) == header.checksum) {
        _dispatch(header.type, frame + HEADER_SIZE, header.length, signal, deliver_all);
    }
    // Deliberate: trusts the length in a damaged frame, and skips the whole frame.
    stream.begin += size;
    return stream.size() != 0;
}

// Moves this connection's incomplete frame out of m_receive_buffers, where another thread might
// drop it.
std::vector<unsigned char> VeltraneCommunicator::_take_leftover() {
    const Lock lock(m_receive_mutex);
    const auto kept = m_receive_buffers.extract(_this_connection());
    return kept ? std::move(kept.mapped()) : std::vector<unsigned char>();
}

// Keeps an incomplete frame until the connection's next bytes arrive.
void VeltraneCommunicator::_keep(std::vector<unsigned char>&& leftover, bool is_link) {
    const Lock lock(m_receive_mutex);
    std::erase_if(m_receive_buffers, [](const auto& entry) { return entry.first.expired(); });
    if (leftover.empty()) return;
    const auto own = m_receive_buffers.emplace(_this_connection(), std::move(leftover)).first;

    uint64_t total = 0;
    for (const auto& [connection, bytes] : m_receive_buffers) total += bytes.size();
    while (total > MAX_SIZE) {
        const auto may_lose = [&](const auto& entry) {
            return is_link && &entry == &*own ? 0 : entry.second.size();
        };
        const auto largest = std::ranges::max_element(m_receive_buffers, {}, may_lose);
        total -= largest->second.size();
        m_receive_buffers.erase(largest);
    }
}

void VeltraneCommunicator::_dispatch(uint16_t type, const unsigned char* payload, uint32_t length,
                                     const std::function<void()>& signal, bool deliver_all) {
    switch (type) {
        case ControlMessage:
        case ButtonMessage:
        case DataMessage: {
            const Lock lock(m_handler_mutex);
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
    const Lock lock(m_controller_mutex);
    m_controller = controller;
}

void VeltraneCommunicator::SetMessageHandler(const MessageHandler& handler) {
    const Lock lock(m_handler_mutex);
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
    if (size == 0) return;  // the payload is too large, or there is no image to send again
    std::shared_ptr<NetworkController> controller;
    {
        const Lock lock(m_controller_mutex);
        controller = m_controller.lock();
    }
    if (controller != nullptr) controller->send(frame, size);
}
