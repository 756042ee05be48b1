#include "devkit/companion/discovery.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

#include "devkit/companion/frame_reader.h"
#include "wire/frame.h"
#include "wire/ports.h"

using namespace std::chrono_literals;

namespace guilink {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto INTERVAL = 1500ms;    // a searching device broadcasts again within this time
constexpr auto GONE = 2 * INTERVAL;  // a device that was silent for so long no longer searches
constexpr int MAX_AT_ONCE = 64;      // datagrams per call; a flood must not starve the link
constexpr size_t MAX_DEVICES = 64;   // entries; forged broadcasts must not fill the memory
constexpr size_t MAX_FIRMWARE = 64;  // bytes; a longer version text is cut off

// Returns the identity and the firmware if the datagram is exactly one IdentityMessage.
std::optional<SearchingDevice> read_identity(std::span<const unsigned char> datagram) {
    std::optional<SearchingDevice> device;
    FrameReader().feed(datagram, [&](uint16_t type, auto payload) {
        device.reset();
        if (type != IdentityMessage || payload.size() < ID_SIZE ||
            HEADER_SIZE + payload.size() != datagram.size())
            return;
        const std::string text(payload.begin(), payload.end());
        device = {text.substr(0, ID_SIZE), text.substr(ID_SIZE, MAX_FIRMWARE), "", {}};
    });
    return device;
}

}  // namespace

std::string dotted(uint32_t address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

std::vector<SearchingDevice> find_devices(std::chrono::milliseconds time) {
    Discovery discovery;
    const auto end = Clock::now() + time;
    while (Clock::now() < end) {
        pollfd event = {discovery.descriptor(), POLLIN, 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        poll(&event, 1, static_cast<int>(left.count()));
        discovery.receive([](const Discovery::Search&) { return false; });
    }
    return discovery.devices();
}

Discovery::Discovery() : m_socket(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_port = htons(DISCOVERY_PORT);
    if (bind(descriptor(), reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
        throw std::runtime_error(
            "cannot listen for devices on UDP port 3152: " + std::string(std::strerror(errno)) +
            "; is another companion running?");
    }
}

bool Discovery::receive(const std::function<bool(const Search&)>& wanted) {
    static const std::vector<unsigned char> acceptance = BuildFrame(ConnectRequest, nullptr, 0);
    bool heard = false;
    for (int i = 0; i < MAX_AT_ONCE; ++i) {
        std::array<unsigned char, 2048> datagram;
        sockaddr_in sender = {};
        socklen_t size = sizeof sender;
        const ssize_t received = recvfrom(descriptor(), datagram.data(), datagram.size(), 0,
                                          reinterpret_cast<sockaddr*>(&sender), &size);
        if (received < 0) break;
        auto device = read_identity({datagram.data(), static_cast<size_t>(received)});
        if (!device) continue;
        heard = true;
        device->address = dotted(sender.sin_addr.s_addr);
        device->heard = Clock::now();
        if (!wanted(note(std::move(*device), sender.sin_addr.s_addr))) continue;
        sendto(descriptor(), acceptance.data(), acceptance.size(), 0,
               reinterpret_cast<const sockaddr*>(&sender), sizeof sender);
    }
    return heard;
}

const Discovery::Search& Discovery::note(SearchingDevice device, uint32_t address) {
    const auto known = std::ranges::find_if(m_searches, [&](const Search& search) {
        return search.device.identity == device.identity && search.address == address;
    });
    auto since = device.heard;
    if (known != m_searches.end()) {
        if (known->goes_on()) since = known->since;
        m_searches.erase(known);
    } else if (m_searches.size() == MAX_DEVICES) {
        m_searches.pop_back();
    }
    return *m_searches.insert(m_searches.begin(), {std::move(device), address, since});
}

bool Discovery::Search::goes_on() const {
    return Clock::now() - device.heard <= GONE;
}

// Measures time instead of counting broadcasts: a computer with two interfaces in the device's
// network receives each broadcast twice.
bool Discovery::Search::is_settled() const {
    return device.heard - since >= INTERVAL;
}

std::vector<SearchingDevice> Discovery::devices() const {
    std::vector<SearchingDevice> devices;
    for (const Search& search : m_searches) devices.push_back(search.device);
    return devices;
}

}  // namespace guilink
