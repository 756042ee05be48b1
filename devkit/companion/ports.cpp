#include "devkit/companion/ports.h"

#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "wire/ports.h"

using namespace std::chrono_literals;

namespace guilink {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto ACCEPT_RETRY = 50ms;  // wait when out of descriptors
constexpr size_t MAX_ANSWERED = 64;  // addresses that may connect to one companion

int listening_socket() {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "no socket");
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_port = htons(LINK_PORT);
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0 ||
        listen(descriptor, SOMAXCONN) != 0) {
        const int why = errno;
        close(descriptor);
        throw std::runtime_error("cannot listen on TCP port 8399: " +
                                 std::string(std::strerror(why)) + "; is another viewer running?");
    }
    return descriptor;
}

bool wants_any(const Ports::Wish& wish) {
    return wish.link == 0 && wish.device.empty() && wish.last_address == 0;
}

}  // namespace

Ports::Ports()
    : m_listener(listening_socket()),
      m_wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_thread(&Ports::run, this) {}

Ports::~Ports() {
    m_stop = true;
    eventfd_write(m_wake.get(), 1);
    m_thread.join();
}

Ports::Entry& Ports::entry_of(Member& companion) {
    const auto entry = std::ranges::find(m_entries, &companion, &Entry::companion);
    return entry != m_entries.end() ? *entry : m_entries.emplace_back(Entry{&companion, {}, {}});
}

void Ports::set_wish(Member& companion, Wish wish) {
    const Lock lock(m_mutex);
    entry_of(companion).wish = std::move(wish);
}

void Ports::begin_anew(Member& companion, Wish wish) {
    const Lock lock(m_mutex);
    entry_of(companion) = {&companion, std::move(wish), {}};
}

void Ports::leave(Member& companion) {
    const Lock lock(m_mutex);
    std::erase_if(m_entries, [&](const Entry& entry) { return entry.companion == &companion; });
}

void Ports::run() {
    pthread_setname_np(pthread_self(), "companion-ports");
    while (!m_stop) {
        pollfd events[] = {{m_wake.get(), POLLIN, 0},
                           {m_discovery.descriptor(), POLLIN, 0},
                           {m_listener.get(), POLLIN, 0}};
        const auto pause =
            std::chrono::ceil<std::chrono::milliseconds>(m_next_accept - Clock::now());
        if (pause > 0ms) events[2].events = 0;
        poll(events, std::size(events), pause > 0ms ? static_cast<int>(pause.count()) : -1);
        // Read broadcasts before accepting a connection, because only a device that was answered
        // may connect, and the poll may have seen only the connection.
        if (events[1].revents != 0 || events[2].revents != 0) receive_broadcasts();
        if (events[2].revents != 0) accept_connection();
    }
}

// Takes the mutex for each broadcast anew, so that a flood keeps no companion waiting.
void Ports::receive_broadcasts() {
    const bool heard = m_discovery.receive([this](const Discovery::Search& search) {
        const Lock lock(m_mutex);
        Entry* const entry = claimant(search);
        if (entry == nullptr) return false;
        for (Entry& each : m_entries) std::erase(each.answered, search.address);
        entry->answered.push_back(search.address);
        if (entry->answered.size() > MAX_ANSWERED) entry->answered.pop_front();
        return true;
    });
    if (!heard) return;
    const auto devices = m_discovery.devices();
    const Lock lock(m_mutex);
    const bool several = several_unclaimed();
    for (const Entry& entry : m_entries) entry.companion->on_devices(devices, several);
}

// Returns how good the companion's claim to a device is; 0 means that it has none. A device that
// changes its identity into another's stays with its companion. A device that gets the address of
// another one goes to the companion that names it, once the link from this address has ended.
int Ports::Entry::claim(const Discovery::Search& search) const {
    const bool address = wish.last_address == search.address;
    const bool identity = wish.last_identity == search.device.identity;
    if (wish.link != 0 && wish.link == search.address) return 5;  // it has dropped the link
    if (address && identity) return 4;
    if (wish.device == search.device.address) return 3;
    // Another device with this identity has searched while the link still worked.
    if (identity && search.since <= wish.last_heard) return 0;
    if (wish.device == search.device.identity) return 3;
    return identity ? 2 : address ? 1 : 0;
}

bool Ports::Entry::expects(uint32_t address) const {
    if (wish.link == address) return true;
    // A silent link is replaced by the first connection that delivers a message.
    return (wish.link == 0 || wish.link_is_silent) && std::ranges::count(answered, address) > 0;
}

// Returns the companion that the device shall get, or null.
Ports::Entry* Ports::claimant(const Discovery::Search& search) {
    Entry* best = nullptr;
    int best_claim = 0;
    bool claimed = false;
    for (Entry& entry : m_entries) {
        const int claim = entry.claim(search);
        claimed |= claim > 0;
        // A linked companion wants no other device, unless its own has moved.
        const bool moved =
            entry.wish.link_is_silent && entry.wish.last_identity == search.device.identity;
        const bool free = entry.wish.link == 0 || entry.wish.link == search.address || moved;
        if (!free || claim <= best_claim) continue;
        best = &entry;
        best_claim = claim;
    }
    if (claimed || !search.is_settled()) return best;
    const auto first = std::ranges::find_if(m_entries, wants_any, &Entry::wish);
    return first == m_entries.end() || several_unclaimed() ? nullptr : &*first;
}

bool Ports::is_claimed(const Discovery::Search& search) {
    return std::ranges::any_of(m_entries,
                               [&](const Entry& entry) { return entry.claim(search) > 0; });
}

bool Ports::several_unclaimed() {
    uint32_t address = 0;  // several entries with one address are one device with a new identity
    for (const auto& search : m_discovery.searches()) {
        if (!search.goes_on() || search.address == address || is_claimed(search)) continue;
        if (std::exchange(address, search.address) != 0) return true;
    }
    return false;
}

void Ports::accept_connection() {
    sockaddr_in device = {};
    socklen_t size = sizeof device;
    const int descriptor = accept4(m_listener.get(), reinterpret_cast<sockaddr*>(&device), &size,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor < 0) {  // out of descriptors: wait instead of spinning
        m_next_accept = Clock::now() + ACCEPT_RETRY;
        return;
    }
    const uint32_t address = device.sin_addr.s_addr;
    const Lock lock(m_mutex);
    const auto entry =
        std::ranges::find_if(m_entries, [&](const Entry& each) { return each.expects(address); });
    if (entry == m_entries.end()) {
        close(descriptor);
    } else {
        entry->companion->on_connection(descriptor, address);
    }
}

namespace {

Mutex sharing;
std::weak_ptr<Ports> shared GUARDED_BY(sharing);

}  // namespace

SharedPorts::SharedPorts() {
    const Lock lock(sharing);
    m_ports = shared.lock();
    if (m_ports == nullptr) shared = m_ports = std::make_shared<Ports>();
}

// Holds the mutex until the ports are closed, so that nobody finds them taken by this program.
SharedPorts::~SharedPorts() {
    const Lock lock(sharing);
    m_ports.reset();
}

}  // namespace guilink
