// While hosts attack, the service must link a good companion, and must not start too many threads.
// After the attack, the fixture Recovery checks that the service has recovered.
#include "tests/support/hostile_host.h"
#include "tests/support/recovery.h"

namespace {

using namespace guilink;
using namespace guilink::test;

constexpr auto LINK_BESIDE = 10s;  // how long a link may take during an attack

// How many more threads the service may have during an attack. An idle machine needs 24: two for
// each of four searches, and one for each of eight connections of two searches. On a busy machine,
// threads end later. Without limits, an attack would start hundreds.
constexpr size_t MORE_THREADS = 96;

class HostileNeighbour : public Recovery {
  protected:
    void keeps_nobody_out(const Behaviour& behaviour) {
        const HostileHosts hostile(behaviour);
        EXPECT_TRUE(wait_until([&] { return hostile.searches() >= 3; }));  // the attack has begun
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
                limit(LINK_BESIDE)));
            longest = std::max(longest, seconds_since(came));
            ++links;
        } while (seconds_since(start) < number_in("GUILINK_STORM_SECONDS", 0));
        std::printf("linked beside it %d times, after %.1f s at most; %zu threads at most\n", links,
                    longest, threads);
        EXPECT_LE(threads, m_before.threads + MORE_THREADS);
    }

    // The service must link the good companion, although other answers to the service's broadcast
    // come before this companion's. Returns the number of searches that this takes.
    static int keeps_out_no_late_one(RawCompanion& good, std::chrono::milliseconds delay) {
        const auto came = std::chrono::steady_clock::now();
        int searches = 0;
        EXPECT_TRUE(wait_until(
            [&] {
                good.hear();
                while (good.offered()) good.accept();  // else a full backlog refuses newer ones
                ++searches;
                std::this_thread::sleep_for(delay);
                good.answer();
                if (!wait_until([&] { return good.offered(); }, 500ms)) return false;
                Socket candidate;
                while (good.offered()) candidate = good.accept();  // the newest one is still open
                const Chatter chatter(candidate, frame(ConnectRequest) + frame(ControlMessage));
                return candidate.readable(1s) && candidate.has_data();
            },
            limit(LINK_BESIDE)));
        std::printf("linked beside them after %.1f s, %d searches\n", seconds_since(came),
                    searches);
        return searches;
    }
    void keeps_out_no_late_one(const Behaviour& behaviour) {
        const HostileHosts hostile(behaviour);
        EXPECT_TRUE(wait_until([&] { return hostile.searches() >= 3; }));
        keeps_out_no_late_one(m_peer, 20ms);
    }

    // The far host is the gateway to the forged addresses and forwards nothing, so connecting to
    // them takes time. Neighbours that do not exist would fill the kernel's ARP table, which all
    // sandboxes share.
    void forged_answers_keep_out_no_late_one(int per_second) {
        run("ip route add 10.90.0.0/16 via 10.77.0.2");
        while (m_peer.asked()) m_peer.hear();  // of the searches before the first link
        m_peer.hear();                         // the service listens to answers now
        const auto forged =
            m_far.inside([&] { return std::make_unique<ForgedAnswers>(per_second, "10.77.0.2"); });
        for (int i = 0; i < 3; ++i) m_peer.hear();
        RawCompanion good = m_far.inside([] { return RawCompanion(); });
        // One after another, the connects to the forged addresses would take 17 searches or more.
        EXPECT_LE(keeps_out_no_late_one(good, 100ms), 12);
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

TEST_F(HostileNeighbour, FewForgedAnswers) {
    forged_answers_keep_out_no_late_one(500);
}

TEST_F(HostileNeighbour, ManyForgedAnswers) {
    forged_answers_keep_out_no_late_one(10'000);
}

TEST_F(HostileNeighbour, ManyForgedAnswersBesideManyAddressesThatHold) {
    const HostileHosts hostile({.addresses = 64, .floods = false});
    forged_answers_keep_out_no_late_one(1000);
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
