// Hosts that answer discovery and then misbehave.
#pragma once

#include <netinet/ip.h>
#include <netinet/udp.h>

#include <atomic>
#include <deque>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/raw_companion.h"

namespace guilink::test {

// What hostile hosts do on the connections that the service opens to them.
struct Behaviour {
    std::optional<Bytes> words = Bytes();  // bytes to send repeatedly; nullopt: refuse connections
    std::chrono::milliseconds words_after = 0ms;  // delay after accepting a connection
    std::chrono::milliseconds words_every = 10ms;
    size_t addresses = 1;
    bool floods = true;  // answer a thousand times a second, not once per broadcast
};

class HostileHosts {
  public:
    explicit HostileHosts(Behaviour behaviour) : m_behaviour(std::move(behaviour)) {
        for (size_t i = 1; i <= m_behaviour.addresses; ++i) {
            m_hosts.emplace_back(("127.0.66." + std::to_string(i)).c_str());
            if (!m_behaviour.words) m_hosts.back().refuse();
        }
        for (RawCompanion& host : m_hosts) host.hear();
        m_thread = std::jthread([this](const std::stop_token& stop) { run(stop); });
    }

    int searches() const { return m_searches; }  // broadcasts that m_hosts.front() has received

  private:
    using Clock = std::chrono::steady_clock;
    struct Held {
        Socket socket;
        Clock::time_point next_words;
    };

    void run(const std::stop_token& stop) {
        std::deque<Held> held;
        for (; !stop.stop_requested(); std::this_thread::sleep_for(1ms)) {
            m_searches += m_hosts.front().asked();
            for (RawCompanion& host : m_hosts) {
                const bool asked = host.asked();
                if (asked) host.hear();
                if (asked || m_behaviour.floods) host.answer();
                while (m_behaviour.words && host.offered()) {
                    held.push_back({host.accept(), Clock::now() + m_behaviour.words_after});
                }
            }
            std::erase_if(held, [this](Held& each) { return !speak(each); });
        }
    }

    // Returns false if the connection has ended.
    bool speak(Held& held) const {
        if (Clock::now() < held.next_words) return true;
        held.next_words = Clock::now() + m_behaviour.words_every;
        const Bytes& words = *m_behaviour.words;
        return send(held.socket.fd(), words.data(), words.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >=
                   0 ||
               errno == EAGAIN;
    }

    const Behaviour m_behaviour;
    std::vector<RawCompanion> m_hosts;
    std::atomic<int> m_searches{0};
    std::jthread m_thread;
};

// Answers the service under addresses that are not its own, from the network namespace in which it
// is created.
class ForgedAnswers {
  public:
    // Answers `per_second` times a second: under `good` eight times at first and then every
    // hundredth time, else under 1000 addresses from 10.90.0.0 on.
    ForgedAnswers(int per_second, const char* good)
        : m_socket(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW)),
          m_thread([this, per_second, victim = inet_addr(good)](const std::stop_token& stop) {
              const auto start = std::chrono::steady_clock::now();
              for (int sent = 0; !stop.stop_requested(); std::this_thread::sleep_for(1ms)) {
                  const auto due = (std::chrono::steady_clock::now() - start) * per_second / 1s;
                  for (; sent < due; ++sent) {
                      const auto other = static_cast<uint32_t>(sent % 1000);
                      const bool as_victim = sent < 8 || sent % 100 == 0;
                      answer(as_victim ? victim : htonl(0x0A5A0000 + other));
                  }
              }
          }) {}

  private:
    void answer(uint32_t source) const {
        constexpr auto& packet = NetworkUnit::acc_packet;
        struct {
            iphdr ip;
            udphdr udp;
            std::remove_cvref_t<decltype(packet)> payload;
        } datagram = {};
        datagram.ip.version = 4;
        datagram.ip.ihl = sizeof datagram.ip / 4;
        datagram.ip.ttl = 64;
        datagram.ip.protocol = IPPROTO_UDP;
        datagram.ip.saddr = source;
        datagram.ip.daddr = inet_addr("10.77.0.1");
        datagram.udp.source = htons(3152);
        datagram.udp.dest = htons(3153);
        datagram.udp.len = htons(sizeof datagram.udp + sizeof packet);
        datagram.payload = packet;
        const sockaddr_in device = ipv4("10.77.0.1", 0);
        sendto(m_socket.fd(), &datagram, sizeof datagram.ip + sizeof datagram.udp + sizeof packet,
               0, reinterpret_cast<const sockaddr*>(&device), sizeof device);
    }

    const Socket m_socket;
    const std::jthread m_thread;
};

}  // namespace guilink::test
