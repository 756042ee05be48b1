// While hosts attack, the service must link a good companion, and must not start too many threads.
// After the attack, the fixture BadDay checks that the service has recovered.
#include "tests/support/bad_day.h"
#include "tests/support/hostile_host.h"

namespace {

using namespace guilink;
using namespace guilink::test;

std::chrono::milliseconds beside_limit() {
    return std::getenv("GUILINK_QUIET") != nullptr ? 10s : LIMIT;
}

// Returns how long an attack lasts at least. GUILINK_STORM_SECONDS sets this time.
std::chrono::seconds storm() {
    const char* const seconds = std::getenv("GUILINK_STORM_SECONDS");
    return std::chrono::seconds(seconds != nullptr ? std::stoi(seconds) : 0);
}

// During an attack, the service may run four searches with two threads each. It may keep the
// connections of two searches, with eight connections each and one thread per connection.
constexpr size_t MORE_THREADS = 4 * 2 + 2 * 8;

class HostileNeighbour : public BadDay {
  protected:
    void keeps_nobody_out(const Manners& manners) {
        const HostileHosts hostile(manners);
        EXPECT_TRUE(wait_until([&] { return hostile.sweeps() >= 3; }));  // the attack has begun
        size_t threads = 0;
        double longest = 0;
        const auto start = std::chrono::steady_clock::now();
        int links = 0;
        do {
            const auto came = std::chrono::steady_clock::now();
            const GoodCompanion good(m_far);
            ASSERT_TRUE(wait_until(
                [&] {
                    threads = std::max(threads, m_daemon->level().threads);
                    return good.images() > 0;
                },
                beside_limit()));
            longest = std::max(longest, seconds_since(came));
            ++links;
        } while (std::chrono::steady_clock::now() < start + storm());
        std::printf("linked beside it %d times, after %.1f s at most; %zu threads at most\n", links,
                    longest, threads);
        EXPECT_LE(threads, m_before.threads + MORE_THREADS);
    }

    // The service must link the good companion (m_peer), although hostile hosts answer the
    // service's broadcast before this companion does.
    void keeps_out_no_late_one(const Manners& manners) {
        const HostileHosts hostile(manners);
        EXPECT_TRUE(wait_until([&] { return hostile.sweeps() >= 3; }));
        const auto came = std::chrono::steady_clock::now();
        EXPECT_TRUE(wait_until(
            [&] {
                m_peer.hear();
                std::this_thread::sleep_for(20ms);
                m_peer.answer();
                if (!wait_until([&] { return m_peer.offered(); }, 500ms)) return false;
                const Socket candidate = m_peer.accept();
                const Chatter chatter(candidate, frame(ConnectRequest) + frame(ControlMessage));
                return candidate.readable(1s) && candidate.has_data();
            },
            beside_limit()));
        std::printf("linked beside them after %.1f s\n", seconds_since(came));
    }
};

const Bytes REQUESTS = repeated(frame(ConnectRequest), 25'000);  // about 1 MiB

// The service drops a connection that does not become the link within 1 s. The hostile host sends
// its requests 0.1 s later.
TEST_F(HostileNeighbour, StormsWithRequestsToConnect) {
    keeps_nobody_out({.words = REQUESTS, .words_after = 1100ms, .words_every = 0ms});
}

TEST_F(HostileNeighbour, FeedsAndDoesNotRead) {
    keeps_nobody_out({.words = repeated(frame(ControlMessage), 10'000), .words_every = 0ms});
}

TEST_F(HostileNeighbour, AsksAndDoesNotRead) {
    keeps_nobody_out({.words = repeated(frame(IdentityRequest), 10'000)});
}

TEST_F(HostileNeighbour, SaysUnknownThings) {
    keeps_nobody_out({.words = repeated(frame(ImageMessage), 25'000), .words_every = 0ms});
}

TEST_F(HostileNeighbour, Refuses) {
    keeps_nobody_out({.words = std::nullopt});
}

TEST_F(HostileNeighbour, NeverSpeaks) {
    keeps_nobody_out({});
}

TEST_F(HostileNeighbour, AnnouncesAMebibyte) {
    keeps_nobody_out({.words = announcing(LARGEST_PAYLOAD, frame(DataMessage, Bytes(10'000)))});
}

TEST_F(HostileNeighbour, ManyAddressesRefuse) {
    keeps_out_no_late_one({.words = std::nullopt, .addresses = 64, .floods = false});
}

TEST_F(HostileNeighbour, ManyAddressesHold) {
    keeps_out_no_late_one({.addresses = 64, .floods = false});
}

TEST_F(HostileNeighbour, SomeAddressesTrickle) {
    keeps_out_no_late_one({.words = Bytes{0x5A}, .words_every = 2800ms, .addresses = 8});
}

TEST_F(HostileNeighbour, SomeAddressesFeed) {
    keeps_out_no_late_one(
        {.words = repeated(frame(ImageMessage), 25'000), .words_every = 0ms, .addresses = 4});
}

TEST_F(HostileNeighbour, CutsNobodysRequestInHalves) {
    const Bytes request = frame(ConnectRequest);
    const auto middle = request.begin() + 20;
    RawCompanion other("127.0.0.66");
    EXPECT_TRUE(wait_until([&] {
        Socket good = m_peer.connection();
        good.write({request.begin(), middle});
        Socket bad = other.connection();
        bad.write({0x5A});
        bad.close();
        std::this_thread::sleep_for(20ms);  // so that the bad host's byte and FIN arrive first
        good.write({middle, request.end()});
        good.write(frame(ControlMessage));
        return good.readable(1s) && good.has_data();
    }));
}

}  // namespace
