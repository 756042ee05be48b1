// Hosts that answer discovery and then misbehave.
#pragma once

#include <atomic>
#include <deque>
#include <optional>
#include <thread>
#include <vector>

#include "tests/support/raw_companion.h"

namespace guilink::test {

// How hostile hosts behave on the connections that the service opens to them.
struct Manners {
    std::optional<Bytes> words = Bytes();  // bytes to send repeatedly; nullopt: refuse connections
    std::chrono::milliseconds words_after = 0ms;  // delay after accepting a connection
    std::chrono::milliseconds words_every = 10ms;
    size_t addresses = 1;
    bool floods = true;  // answer a thousand times a second, not once per broadcast
};

class HostileHosts {
  public:
    explicit HostileHosts(Manners manners) : m_manners(std::move(manners)) {
        for (size_t i = 1; i <= m_manners.addresses; ++i) {
            m_hosts.emplace_back(("127.0.66." + std::to_string(i)).c_str());
            if (!m_manners.words) m_hosts.back().refuse();
        }
        for (RawCompanion& host : m_hosts) host.hear();
        m_thread = std::thread([this] { harass(); });
    }
    ~HostileHosts() {
        m_stop = true;
        m_thread.join();
    }

    int sweeps() const { return m_sweeps; }  // broadcasts that m_hosts.front() has received

  private:
    using Clock = std::chrono::steady_clock;
    struct Held {
        Socket socket;
        Clock::time_point next_words;
    };

    void harass() {
        std::deque<Held> held;
        for (; !m_stop; std::this_thread::sleep_for(1ms)) {
            m_sweeps += m_hosts.front().asked();
            for (RawCompanion& host : m_hosts) {
                const bool asked = host.asked();
                if (asked) host.hear();
                if (asked || m_manners.floods) host.answer();
                while (m_manners.words && host.offered()) {
                    held.push_back({host.accept(), Clock::now() + m_manners.words_after});
                }
            }
            std::erase_if(held, [this](Held& each) { return !speak(each); });
        }
    }

    // Returns false if the connection has ended.
    bool speak(Held& held) const {
        if (Clock::now() < held.next_words) return true;
        held.next_words = Clock::now() + m_manners.words_every;
        const Bytes& words = *m_manners.words;
        return send(held.socket.fd(), words.data(), words.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >=
                   0 ||
               errno == EAGAIN;
    }

    const Manners m_manners;
    std::vector<RawCompanion> m_hosts;
    std::atomic<int> m_sweeps{0};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace guilink::test
