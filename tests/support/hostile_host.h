// A neighbour that wants to be linked and never will be.
#pragma once

#include <atomic>
#include <optional>
#include <thread>
#include <vector>

#include "tests/support/raw_companion.h"

namespace guilink::test {

// Answers discovery a thousand times a second. Refuses the connections; or, if there are words,
// holds them and sends the words on each again and again without ever reading.
class HostileHost {
  public:
    explicit HostileHost(const std::optional<Bytes>& words)
        : m_words(words.value_or(Bytes())), m_host("127.0.0.66") {
        if (!words) m_host.refuse();
        m_host.hear();
        m_thread = std::thread([this] { harass(); });
    }
    ~HostileHost() {
        m_stop = true;
        m_thread.join();
    }

    int sweeps() const { return m_sweeps; }  // of the service, since this host is there

  private:
    void harass() {
        std::vector<Socket> held;
        while (!m_stop) {
            for (int i = 0; i < 10; ++i, std::this_thread::sleep_for(1ms)) m_host.answer();
            for (; m_host.asked(); m_host.hear()) ++m_sweeps;
            while (m_host.offered()) held.push_back(m_host.accept());
            for (const Socket& socket : held) {
                send(socket.fd(), m_words.data(), m_words.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            }
        }
    }

    const Bytes m_words;
    RawCompanion m_host;
    std::atomic<int> m_sweeps{0};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace guilink::test
