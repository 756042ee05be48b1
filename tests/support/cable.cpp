// guilink-cable: a network cable between two hosts, for tests and measurements, because not every
// kernel has netem. Run it in the sandbox.
//
// One end is the interface cable0 (10.78.0.1) in the caller's network namespace, the other end
// cable1 (10.78.0.2) in a new namespace, the one of the cable's process. When the cable is ready,
// it prints "ready". Each line of standard input changes settings, such as "rate 2 delay 50"; at
// the end of standard input, the cable disappears. All settings apply to each direction separately:
//   rate       Mbit/s; 0: unlimited
//   queue      ms that a packet may wait because of the rate, before it is lost
//   delay      ms that each packet takes
//   loss       percentage of packets that are lost
//   duplicate  percentage of packets that arrive twice
//   reorder    percentage of packets that overtake others, because they take half the delay
//   down       1: everything is lost; 0: the cable works
// Random choices are the same in each run.
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;
using Packet = std::vector<char>;

constexpr size_t MAX_PACKET = 2048;  // bytes; an Ethernet packet has 1514 at most
constexpr int READS_AT_ONCE = 64;    // so that one direction does not hold up the other
constexpr int BITS_PER_MS = 1000;    // of 1 Mbit/s

std::map<std::string, double> settings = {
    {"rate", 0},      {"queue", 50},  {"delay", 0}, {"loss", 0},
    {"duplicate", 0}, {"reorder", 0}, {"down", 0},
};

void change_settings(const std::string& line) {
    std::istringstream words(line);
    std::string name;
    while (words >> name) {
        const auto setting = settings.find(name);
        if (setting == settings.end() || !(words >> setting->second))
            throw std::runtime_error("invalid setting '" + name + "' in '" + line + "'");
    }
}

// Makes one end of the cable in the present namespace. Returns its descriptor.
int make_end(const std::string& name, const std::string& address) {
    const int tap = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ifreq request = {};
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    if (tap < 0 || ioctl(tap, TUNSETIFF, &request) != 0)
        throw std::runtime_error("cannot make " + name + " with /dev/net/tun: " +
                                 std::strerror(errno) + "; is the kernel's module tun loaded?");
    const std::string command =
        "ip link set " + name + " up && ip address add " + address + "/24 broadcast + dev " + name;
    if (std::system(command.c_str()) != 0) throw std::runtime_error(command + " has failed");
    return tap;
}

// One direction of the cable.
class Direction {
  public:
    Direction(int from, int to, unsigned seed) : m_from(from), m_to(to), m_random(seed) {}
    int from() const { return m_from; }

    void read_packets() {
        for (int i = 0; i < READS_AT_ONCE; ++i) {
            Packet packet(MAX_PACKET);
            const ssize_t size = read(m_from, packet.data(), packet.size());
            if (size <= 0) return;
            packet.resize(static_cast<size_t>(size));
            take(std::move(packet));
        }
    }

    void write_packets(Clock::time_point now) {
        while (!m_under_way.empty() && m_under_way.begin()->first <= now) {
            const Packet& packet = m_under_way.begin()->second;
            // The packet is lost if the interface is down, as it would be on a real cable.
            [[maybe_unused]] const ssize_t size = write(m_to, packet.data(), packet.size());
            m_under_way.erase(m_under_way.begin());
        }
    }

    std::optional<Clock::time_point> next() const {
        if (m_under_way.empty()) return std::nullopt;
        return m_under_way.begin()->first;
    }

  private:
    bool chance(const char* setting) {
        return std::uniform_real_distribution(0.0, 100.0)(m_random) < settings[setting];
    }

    void take(Packet&& packet) {
        const bool lost = chance("loss");
        const bool twice = chance("duplicate");
        const bool overtakes = chance("reorder");
        const auto now = Clock::now();
        if (settings["down"] != 0) return m_under_way.clear();
        if (settings["rate"] != 0) {
            m_free = std::max(m_free, now);
            if (Milliseconds(m_free - now).count() > settings["queue"]) return;
            m_free += milliseconds(static_cast<double>(packet.size() * 8) /
                                   (settings["rate"] * BITS_PER_MS));
        }
        if (lost) return;
        const auto sent = settings["rate"] != 0 ? m_free : now;
        const auto arrives = sent + milliseconds(settings["delay"] * (overtakes ? 0.5 : 1));
        if (twice) m_under_way.emplace(arrives, packet);
        m_under_way.emplace(arrives, std::move(packet));
    }

    static Clock::duration milliseconds(double count) {
        return std::chrono::duration_cast<Clock::duration>(Milliseconds(count));
    }

    const int m_from;
    const int m_to;
    std::mt19937 m_random;
    Clock::time_point m_free;  // when the last packet of the queue has been sent
    std::multimap<Clock::time_point, Packet> m_under_way;  // by time of arrival
};

void run() {
    const int near = make_end("cable0", "10.78.0.1");
    if (unshare(CLONE_NEWNET) != 0) throw std::runtime_error("cannot make a network namespace");
    if (std::system("ip link set lo up") != 0) throw std::runtime_error("no loopback interface");
    const int far = make_end("cable1", "10.78.0.2");
    std::array directions = {Direction(near, far, 1), Direction(far, near, 2)};
    std::cout << "ready\n" << std::flush;

    std::string line;
    while (true) {
        auto wait = Clock::duration::max();
        for (Direction& direction : directions) {
            direction.write_packets(Clock::now());
            if (const auto next = direction.next()) wait = std::min(wait, *next - Clock::now());
        }
        const auto left = std::chrono::nanoseconds(std::max(wait, Clock::duration::zero()));
        const timespec timeout = {left.count() / 1'000'000'000, left.count() % 1'000'000'000};
        std::array<pollfd, 3> events = {
            {{near, POLLIN, 0}, {far, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
        ppoll(events.data(), events.size(), wait == Clock::duration::max() ? nullptr : &timeout,
              nullptr);
        for (Direction& direction : directions) direction.read_packets();
        if (events[2].revents == 0) continue;
        char character;
        if (read(STDIN_FILENO, &character, 1) != 1) return;
        if (character != '\n') {
            line += character;
            continue;
        }
        change_settings(line);
        line.clear();
    }
}

}  // namespace

int main() try {
    prctl(PR_SET_TIMERSLACK, 1);  // so that packets leave on time
    run();
} catch (const std::exception& error) {
    std::cerr << "guilink-cable: " << error.what() << '\n';
    return 1;
}
