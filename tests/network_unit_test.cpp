#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <malloc.h>
#include <netinet/ip_icmp.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <mutex>
#include <random>
#include <set>

#include "net/network_unit_v4.h"
#include "tests/support/raw_companion.h"

namespace {

using namespace guilink::test;
using testing::ElementsAre;

using Units = std::vector<std::unique_ptr<NetworkUnit>>;

constexpr const char* INTERFACE = "10.77.0.1";  // address of guilink0 in the sandbox
constexpr const char* MASK = "255.255.255.0";
constexpr const char* THIS_HOST = "127.0.0.1";
constexpr const char* SINGLE = "255.255.255.255";
constexpr const char* HOST_MASK = "(255.255.255.255)\n";
constexpr uint16_t PORT = 8399;
const Bytes PAYLOAD = {1, 2, 3};

std::unique_ptr<NetworkUnit> unit(const char* address, const char* mask,
                                  const Bytes& payload = {}) {
    return std::make_unique<NetworkUnitV4>(inet_addr(address), inet_addr(mask), payload);
}

// Returns the lines that the units log.
std::multiset<std::string> hosts(const Units& units) {
    std::multiset<std::string> lines;
    for (const auto& one : units) {
        testing::internal::CaptureStdout();
        one->print_host();
        lines.insert(testing::internal::GetCapturedStdout());
    }
    return lines;
}

// Collects the units that a search finds.
struct Finder {
    UnitFoundCallback callback() {
        return [this](std::unique_ptr<NetworkUnit>&& found) {
            units.push_back(std::move(found));
            ++count;
        };
    }
    Units units;  // complete after NetworkUnit::join()
    std::atomic<size_t> count{0};
};

// Collects what a connection receives.
class Receiver {
  public:
    DataReceivedCallback callback() {
        return [this](const unsigned char* data, unsigned long length, NetworkUnit*) {
            const std::lock_guard lock(m_mutex);
            EXPECT_EQ(data == nullptr, length == 0);
            m_data.append(data, data + length);
            m_ends += length == 0;
        };
    }
    std::string data() {
        const std::lock_guard lock(m_mutex);
        return m_data;
    }
    int ends() const { return m_ends; }

  private:
    std::mutex m_mutex;
    std::string m_data;
    std::atomic<int> m_ends{0};
};

TEST(NetworkUnit, OneUnitForEachInterfaceAddress) {
    ASSERT_EQ(system("ip address add 10.78.1.2/30 dev guilink0 &&"
                     "ip address add 127.0.0.9/8 dev lo"),
              0);
    Finder finder;
    NetworkUnitV4::enumerate_interfaces(finder.callback(), PAYLOAD);
    EXPECT_THAT(hosts(finder.units),
                ElementsAre("Host: 10.77.0.1(255.255.255.0)\n",
                            "Host: 10.78.1.2(255.255.255.252)\n", "Host: 127.0.0.9(255.0.0.0)\n"));
    NetworkUnitV4::enumerate_interfaces({}, PAYLOAD);  // must not crash without a callback
}

TEST(NetworkUnit, BroadcastDiscovery) {
    RawCompanion companion("10.77.0.1");
    const Bytes good(NetworkUnit::acc_packet.begin(), NetworkUnit::acc_packet.end());
    Finder finder;
    const auto seeker = unit(INTERFACE, MASK, PAYLOAD);
    seeker->ping(finder.callback());
    EXPECT_EQ(companion.hear(), PAYLOAD);
    EXPECT_EQ(companion.device().sin_addr.s_addr, inet_addr(INTERFACE));
    EXPECT_EQ(companion.device().sin_port, htons(3153));

    for (size_t i = 0; i < good.size(); ++i) {
        Bytes altered = good;
        altered[i] ^= 0x80;
        companion.answer(altered);
    }
    Bytes resized = good;
    resized.push_back(0);
    companion.answer(resized);
    resized.resize(41);
    companion.answer(resized);
    companion.answer({});
    companion.answer(good);
    companion.answer(good);
    seeker->join();
    const std::string host = std::string("Host: ") + INTERFACE + HOST_MASK;
    EXPECT_THAT(hosts(finder.units), ElementsAre(host, host));

    seeker->ping({});  // a unit can search again after join(), even without a callback
    EXPECT_EQ(companion.hear(), PAYLOAD);
}

TEST(NetworkUnitDeathTest, ForbiddenDiscoveriesEndTheProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto aborted = testing::KilledBySignal(SIGABRT);
    // The address of another host cannot be bound.
    EXPECT_EXIT(unit("10.77.0.2", MASK, PAYLOAD)->ping({}), aborted, "");
    const auto twice = [] {
        const auto seeker = unit(INTERFACE, MASK, PAYLOAD);
        seeker->ping({});
        seeker->ping({});
    };
    EXPECT_EXIT(twice(), aborted, "");
}

// Runs all searches at once, so that each search receives the replies to all searches. Every
// address in 127.0.0.0/8 replies.
TEST(NetworkUnit, EchoSweep) {
    const struct {
        const char* address;
        const char* mask;
        std::string prefix;  // of all addresses that the search must find
        int first;
        int last;
    } table[] = {
        {"127.1.2.3", "255.255.0.0", "127.1.0.", 1, 254},
        {"127.3.2.18", "255.255.255.240", "127.3.2.", 17, 30},
        {"127.4.2.3", "255.255.255.252", "127.4.2.", 1, 2},
        {"127.5.2.3", "255.255.255.254", "127.5.2.", 2, 3},
        {"127.6.2.3", SINGLE, "127.6.2.", 3, 3},
    };
    Finder finders[std::size(table)];
    Units seekers;
    for (size_t i = 0; i < std::size(table); ++i) {
        seekers.push_back(unit(table[i].address, table[i].mask));
        seekers.back()->ping(finders[i].callback());
    }

    // Send invalid replies from the host that the fifth search looks for. This search must ignore
    // the replies.
    EXPECT_TRUE(wait_until([&] { return finders[4].count == 1; }));
    const Socket forger(socket(AF_INET, SOCK_RAW, IPPROTO_ICMP));
    const sockaddr_in host = ipv4("127.6.2.3", 0);
    ASSERT_EQ(bind(forger.fd(), reinterpret_cast<const sockaddr*>(&host), sizeof host), 0);
    ASSERT_EQ(connect(forger.fd(), reinterpret_cast<const sockaddr*>(&host), sizeof host), 0);
    Bytes reply(28);
    reply[0] = ICMP_DEST_UNREACH;
    forger.write(reply);
    reply[0] = ICMP_ECHOREPLY;
    reply[1] = 1;  // invalid, because an echo reply has code 0
    forger.write(reply);
    forger.write(Bytes(27));  // too short
    forger.write(Bytes(29));  // too long

    for (size_t i = 0; i < std::size(table); ++i) {
        seekers[i]->join();
        std::multiset<std::string> expected;
        for (int last = table[i].first; last <= table[i].last; ++last) {
            expected.insert("Host: " + table[i].prefix + std::to_string(last) + HOST_MASK);
        }
        EXPECT_EQ(hosts(finders[i].units), expected) << table[i].address;
    }

    Finder finder;
    const auto everywhere = unit(THIS_HOST, "0.0.0.0");
    everywhere->ping(finder.callback());
    everywhere->join();
    EXPECT_EQ(finder.count, 0u);  // with the mask 0.0.0.0, ping() calculates a range of 0 hosts
}

TEST(NetworkUnit, NoSocketAvailable) {
    testing::internal::CaptureStderr();
    Finder finder;
    std::thread([&] {  // without capabilities, the unit's threads get no raw socket
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        const __user_cap_data_struct none[2] = {};
        ASSERT_EQ(syscall(SYS_capset, &header, none), 0);
        const auto seeker = unit(THIS_HOST, SINGLE);
        seeker->ping(finder.callback());
        seeker->join();
    })
        .join();
    EXPECT_EQ(finder.count, 0u);

    Receiver receiver;
    // Connect once before the limit below forbids new descriptors, because the sanitizer opens a
    // descriptor when it checks a type for the first time.
    unit(THIS_HOST, SINGLE)->tcp_connect(PORT, receiver.callback());
    const auto host = unit(THIS_HOST, SINGLE);
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    host->tcp_connect(PORT, receiver.callback());
    EXPECT_FALSE(host->send(PAYLOAD.data(), PAYLOAD.size()));
    setrlimit(RLIMIT_NOFILE, &limit);
    host->join();
    EXPECT_EQ(receiver.ends(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "NetSocket: couldn't create socket\nNetworkUnitV4: tcp connection error\n");
}

// A host that listens, and a unit that connects to it.
class Connection : public testing::Test {
  protected:
    Socket connect() {
        m_unit->tcp_connect(PORT, m_receiver.callback());
        return Socket(accept(m_host.fd(), nullptr, nullptr));
    }
    // Connects, sends "hello" to the unit, and waits until the unit has received it.
    Socket connected() {
        Socket peer = connect();
        peer.write(bytes("hello"));
        EXPECT_TRUE(wait_until([this] { return m_receiver.data() == "hello"; }));
        return peer;
    }
    bool send(const Bytes& data) { return m_unit->send(data.data(), data.size()); }
    bool send_at_once(const Bytes& data) { return m_unit->send_at_once(data.data(), data.size()); }

    Socket m_host{SOCK_STREAM, THIS_HOST, PORT};
    Receiver m_receiver;
    std::unique_ptr<NetworkUnit> m_unit = unit(THIS_HOST, SINGLE);
};

TEST_F(Connection, CarriesBytesBothWaysUntilItsEnd) {
    EXPECT_FALSE(send(PAYLOAD));
    EXPECT_FALSE(send_at_once(PAYLOAD));
    EXPECT_TRUE(m_unit->finished());
    testing::internal::CaptureStderr();
    Socket peer = connected();
    EXPECT_TRUE(send(PAYLOAD));
    EXPECT_TRUE(send_at_once(PAYLOAD));
    EXPECT_EQ(peer.read(2 * PAYLOAD.size()), PAYLOAD + PAYLOAD);
    EXPECT_EQ(m_receiver.ends(), 0);
    EXPECT_FALSE(m_unit->finished());

    peer.close();
    m_unit->join();
    EXPECT_EQ(m_receiver.ends(), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Connection, RefusalIsSilent) {
    m_host.close();
    testing::internal::CaptureStderr();
    m_unit->tcp_connect(PORT, m_receiver.callback());
    m_unit->join();
    EXPECT_FALSE(send(PAYLOAD));
    EXPECT_EQ(m_receiver.ends(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Connection, SilenceEndsIt) {
    testing::internal::CaptureStderr();
    const auto start = std::chrono::steady_clock::now();
    const Socket peer = connect();
    m_unit->join();
    EXPECT_GE(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_EQ(m_receiver.ends(), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "NetworkUnitV4: tcp receiver error or timeout\n");
}

TEST_F(Connection, QueuesForASlowPeerUpToALimit) {
    using enum NetworkUnit::Progress;
    Socket peer = connected();
    const Chatter chatter(peer, bytes("x"));
    EXPECT_EQ(m_unit->flush(), Sent);
    // Send more than the sockets' buffers hold, so that data must wait in the queue.
    Bytes data(NetworkUnit::BUFFER_SIZE);
    std::generate(data.begin(), data.end(), std::minstd_rand());
    size_t sent = 0;
    for (; m_unit->flush() == Sent; ++sent) ASSERT_TRUE(send(data));
    ASSERT_TRUE(send(PAYLOAD));  // an answer behind a frame
    EXPECT_TRUE(wait_until([&] { return m_unit->flush() == Stalled; }));

    std::thread reader([&] {
        for (; sent > 0; --sent) EXPECT_EQ(peer.read(data.size()), data);
        EXPECT_EQ(peer.read(PAYLOAD.size()), PAYLOAD);
    });
    EXPECT_TRUE(wait_until([&] { return m_unit->flush() == Sent; }));
    reader.join();

    while (m_unit->flush() == Sent) ASSERT_TRUE(send(data));
    EXPECT_FALSE(send(data) && send(data));  // exceeds the limit
    EXPECT_TRUE(m_unit->stopped());
    EXPECT_FALSE(send(PAYLOAD));  // nothing may follow a part of a frame
}

TEST_F(Connection, KeepsNothingThatWasSent) {
    constexpr int size = 0x10000;  // fixed, so that the sockets do not hold more and more
    setsockopt(m_host.fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    const Bytes piece(0x8000);
    size_t limit = 0;
    for (const Socket peer = connect(); send(piece);) ++limit;

    const Socket peer = connect();
    const Chatter chatter(peer, bytes("x"));
    for (size_t i = 0; i < limit - 16; ++i) ASSERT_TRUE(send(piece));
    const auto allocated = [] {  // bytes; 0 in a sanitizer build
        const auto memory = mallinfo2();
        return memory.uordblks + memory.hblkhd;
    };
    const size_t before = allocated();
    for (int i = 0; i < 2000; ++i) {  // the queue never runs empty
        peer.read(piece.size());
        ASSERT_TRUE(send(piece));
        m_unit->flush();
    }
    EXPECT_LT(allocated(), before + 0x800000);
}

TEST_F(Connection, SendAtOnceQueuesNothing) {
    const Socket peer = connected();
    EXPECT_FALSE(send_at_once(Bytes(64 * NetworkUnit::BUFFER_SIZE)));
    EXPECT_TRUE(m_unit->stopped());
}

TEST_F(Connection, SendFailsAfterTheReset) {
    Socket peer = connected();
    peer.reset();
    m_unit->join();
    EXPECT_EQ(m_receiver.ends(), 1);
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(send(PAYLOAD));  // must not raise SIGPIPE
}

// A connect that the peer's host does not answer must not keep the unit's thread. Without a stop,
// it takes 3 s at least.
TEST_F(Connection, StopEndsAConnectThatWaits) {
    EXPECT_TRUE(wait_until([this] {
        m_unit = unit("10.77.0.77", SINGLE);  // nobody has this address
        m_unit->tcp_connect(PORT, m_receiver.callback());
        m_unit->stop();
        const auto start = std::chrono::steady_clock::now();
        m_unit->join();
        return std::chrono::steady_clock::now() - start < 1s;
    }));
    EXPECT_EQ(m_receiver.ends(), 0);
}

TEST_F(Connection, StopEndsItAtOnceAndQuietly) {
    testing::internal::CaptureStderr();
    const Socket peer = connected();
    m_unit->stop();
    EXPECT_FALSE(send(PAYLOAD));
    EXPECT_FALSE(send_at_once(PAYLOAD));
    EXPECT_TRUE(peer.ended());
    EXPECT_TRUE(wait_until([&] { return m_unit->finished(); }));
    EXPECT_EQ(m_receiver.ends(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Connection, NewOneEndsTheOldOneQuietly) {
    const Socket peer = connected();
    const Chatter chatter(peer, bytes("a"));
    Receiver other;
    m_unit->tcp_connect(PORT, other.callback());
    EXPECT_TRUE(peer.ended());
    EXPECT_EQ(m_receiver.ends(), 0);

    const Socket next(accept(m_host.fd(), nullptr, nullptr));
    const Chatter next_chatter(next, bytes("b"));
    EXPECT_TRUE(wait_until([&] { return !other.data().empty(); }));
    m_unit.reset();
    EXPECT_EQ(other.ends(), 0);
    EXPECT_EQ(other.data().find('a'), std::string::npos);
}

}  // namespace
