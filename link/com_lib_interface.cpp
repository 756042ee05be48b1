#include "link/com_lib_interface.h"

#include <pthread.h>
#include <unistd.h>

#include <utility>

#include "base/write_line.h"
#include "buttons/btn_cmds_local_sender.h"
#include "link/read_frame.h"
#include "net/network_controller.h"
#include "protocol/veltrane_communicator.h"

using namespace std::chrono_literals;

namespace {

constexpr uint64_t SMALL_FRAME_SIZE = 1'572'864;  // bytes; 1024 x 768 pixels of 16 bits
constexpr auto ALIVE_TIMEOUT = 2s;   // without a keep-alive for this long, new frames are dropped
constexpr auto SENDER_WAIT = 500ms;  // after this time, the last image is sent again

}  // namespace

ComLibInterface::ComLibInterface(const std::string& id, const std::string& fw)
    : m_front(FRAME_BUFFER_SIZE), m_back(FRAME_BUFFER_SIZE), m_last_alive(Clock::now()) {
    m_communicator = std::make_shared<VeltraneCommunicator>(id, fw);
    m_controller = std::make_shared<NetworkController>(m_communicator);
    m_communicator->SetController(m_controller);
    m_communicator->SetMessageHandler(
        [this](uint16_t type, const std::vector<unsigned char>& payload) {
            _on_message(type, payload);
        });
    try {
        m_sender_thread = std::thread(&ComLibInterface::_sender_loop, this);
    } catch (...) {
        m_communicator->SetMessageHandler({});  // the handler holds a pointer to this object
        throw;
    }
}

ComLibInterface::~ComLibInterface() {
    m_stop = true;
    m_sender_thread.join();
    // Remove the handler, because it uses this object and receive threads outlive this object.
    m_communicator->SetMessageHandler({});
}

void ComLibInterface::_set_resolution(uint64_t size) {
    const bool large = size == FRAME_BUFFER_SIZE;
    m_width = large ? 1280 : 1024;
    m_height = large ? 960 : 768;
}

void ComLibInterface::_set_alive_time(Clock::time_point time) {
    const Lock lock(m_alive_mutex);
    m_last_alive = time;
}

ComLibInterface::Clock::time_point ComLibInterface::_alive_time() {
    const Lock lock(m_alive_mutex);
    return m_last_alive;
}

void ComLibInterface::push_frame(std::shared_ptr<unsigned char> frame, uint64_t size) {
    if (Clock::now() > _alive_time() + ALIVE_TIMEOUT) return;

    const Lock lock(m_frame_mutex);
    _set_resolution(size);
    // Deliberate: does not reject a size above FRAME_BUFFER_SIZE, because the core is trusted.
    // Every frame below FRAME_BUFFER_SIZE is read as 1024 x 768 pixels.
    ReadFrame(m_back.data(), frame.get(), size >= FRAME_BUFFER_SIZE ? size : SMALL_FRAME_SIZE);
    m_frame_cv.notify_all();
    m_frame_ready = true;
}

void ComLibInterface::_sender_loop() {
    pthread_setname_np(pthread_self(), "frame-sender");
    const Lock wait_lock(m_wait_mutex);
    while (!m_stop) {
        // Do not fetch a frame before it can be sent, so that a newer frame can still replace it.
        if (!m_controller->wait_until_sent() || m_stop) continue;
        // A notification during SendImage is lost. But m_frame_ready is true then, so wait_for
        // returns at once.
        const auto ready = [this]() REQUIRES(m_frame_mutex) { return m_frame_ready; };
        Lock lock(m_frame_mutex);
        if (m_frame_cv.wait_for(lock, SENDER_WAIT, ready)) {
            m_frame_ready = false;
            m_front.swap(m_back);
            const auto width = static_cast<uint16_t>(m_width);
            const auto height = static_cast<uint16_t>(m_height);
            lock.unlock();
            const void* const pixels = m_front.data();
            m_communicator->SendImage(static_cast<const uint16_t*>(pixels), width, height);
        } else {
            lock.unlock();
            m_communicator->SendImage(nullptr, 0, 0);
        }
    }
}

// Runs on the receive thread of a network unit.
void ComLibInterface::_on_message(uint16_t type, const std::vector<unsigned char>& payload) {
    switch (type) {
        case ControlMessage:
            _set_alive_time(Clock::now());
            return;
        case ButtonMessage:
            try {
                const uint32_t button = payload.at(0);
                SendButtonCommand(button);
                write_line(STDOUT_FILENO, {"BUTTON ", std::to_string(button)});
            } catch (...) {  // if the payload is empty or memory is short, drop the press
            }
            return;
        case DataMessage:
            write_line(STDOUT_FILENO,
                       {"USER ", {reinterpret_cast<const char*>(payload.data()), payload.size()}});
            return;
        default:
            return;
    }
}
