// Tests the companion library with devices that the test simulates with plain sockets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <atomic>
#include <optional>

#include "guilink/companion.h"
#include "tests/support/raw_companion.h"

namespace guilink {
namespace {

using namespace guilink::test;

Bytes identity(const std::string& identity, const std::string& firmware = "fw2") {
    return frame(IdentityMessage, bytes(identity + firmware));
}

const Bytes IDENTITY = identity("ABCDE");

// A companion, and what it reports.
class Watched {
  public:
    explicit Watched(const std::string& device = "")
        : companion({[this](const LinkStatus& status) {
                         const std::lock_guard lock(m_mutex);
                         m_status = status;
                     },
                     [this](const auto&) { on_image(); },
                     {},
                     [this](const std::vector<SearchingDevice>& devices) {
                         const std::lock_guard lock(m_mutex);
                         m_devices = devices;
                     }},
                    device) {}

    LinkStatus status() {
        const std::lock_guard lock(m_mutex);
        return m_status;
    }
    std::vector<SearchingDevice> devices() {
        const std::lock_guard lock(m_mutex);
        return m_devices;
    }

    bool links_to(const std::string& identity, const std::string& address) {
        return wait_until([&] {
            const LinkStatus now = status();
            return now.linked && now.identity == identity && now.address == address;
        });
    }
    bool loses_its_link() {
        return wait_until([this] { return !status().linked; });
    }

    std::function<void()> on_image = [] {};

  private:
    std::mutex m_mutex;
    LinkStatus m_status;
    std::vector<SearchingDevice> m_devices;

  public:
    Companion companion;  // last, because its handlers use the other members
};

// Simulates devices with plain sockets.
class CompanionTest : public testing::Test {
  protected:
    static void search(const Socket& from, const Bytes& datagram) {
        const sockaddr_in companion = ipv4("127.0.0.1", 3152);
        sendto(from.fd(), datagram.data(), datagram.size(), 0,
               reinterpret_cast<const sockaddr*>(&companion), sizeof companion);
    }

    // Acts as a device: broadcasts until the companion answers, and then connects to it.
    Socket connect(const char* address = "127.0.0.1", const Bytes& identity = IDENTITY) {
        m_search.emplace(SOCK_DGRAM, address, 3153);
        search_until_answered(*m_search, identity);
        return connect_from(address);
    }

    static void search_until_answered(const Socket& from, const Bytes& identity = IDENTITY) {
        EXPECT_TRUE(wait_until([&] {
            search(from, identity);
            return from.readable(20ms);
        }));
    }

    static Socket connect_from(const char* address) {
        Socket connection(SOCK_STREAM, address, 0, Socket::Use::Connect);
        const sockaddr_in link = ipv4("127.0.0.1", 8399);
        EXPECT_EQ(::connect(connection.fd(), reinterpret_cast<const sockaddr*>(&link), sizeof link),
                  0);
        return connection;
    }

    // Reads frames up to the first one of this type, and returns the types of those before it.
    static std::vector<int> read_until(const Socket& connection, uint16_t type) {
        std::vector<int> types;
        while (true) {
            const Bytes next = connection.read_frame();
            if (type_of(next) == type) return types;
            types.push_back(type_of(next));
        }
    }

    static Bytes next_payload(const Socket& connection, uint16_t type) {
        return payload_of(connection.read_frame(type));
    }

    // Answers the companion's identity request, and waits until the companion is linked.
    void identify(const Socket& connection) {
        read_until(connection, IdentityRequest);
        connection.write(IDENTITY);
        EXPECT_TRUE(wait_until([this] {
            const LinkStatus now = status();
            return now.linked && now.identity == "ABCDE" && now.firmware == "fw2";
        }));
    }

    // Acts as a device that has this identity and draws.
    Socket begin(const char* address, const std::string& name) {
        Socket device = connect(address, identity(name));
        device.write(frame(ImageMessage, payload({1, 1})));
        read_until(device, IdentityRequest);
        device.write(identity(name));
        return device;
    }

    LinkStatus status() { return m_watched.status(); }

    std::optional<Socket> m_search;  // socket that sent the last broadcast
    Watched m_watched;
    Companion& m_companion = m_watched.companion;
};

TEST_F(CompanionTest, ButtonsWaitForTheAnsweredIdentity) {
    for (const uint8_t button : Bytes{3, 1, 2}) EXPECT_TRUE(m_companion.press(button));
    EXPECT_TRUE(m_companion.send_text("hello"));
    const Socket device = connect();
    device.write(frame(ImageMessage, payload({1, 1})));
    EXPECT_THAT(read_until(device, IdentityRequest),
                testing::Not(testing::Contains(ButtonMessage)));
    device.write(IDENTITY);
    for (const uint8_t button : Bytes{3, 1, 2}) {
        EXPECT_EQ(next_payload(device, ButtonMessage), Bytes{button});
    }
    EXPECT_THAT(read_until(device, DataMessage), testing::Not(testing::Contains(ButtonMessage)));
}

TEST_F(CompanionTest, ReportsWhatBecomesOfAMessage) {
    std::mutex mutex;
    // One letter per event, in order: P is a picture; C, U and R are a confirmed, an unknown and a
    // refused Delivery.
    std::string seen;
    const auto note = [&](char letter) {
        const std::lock_guard lock(mutex);
        seen += letter;
    };
    const auto expect = [&](const std::string& expected) {
        EXPECT_TRUE(wait_until([&] {
            const std::lock_guard lock(mutex);
            return seen == expected;
        })) << seen;
    };
    const auto press = [&](uint8_t button) {
        m_companion.press(button, [&](Delivery what) { note("CUR"[static_cast<int>(what)]); });
    };
    m_watched.on_image = [&] { note('P'); };
    press(1);
    expect("R");
    const Socket device = connect();
    const Bytes image = frame(ImageMessage, payload({1, 1}));
    identify(device);
    device.write(image);
    press(2);
    EXPECT_EQ(next_payload(device, ButtonMessage), Bytes{2});
    EXPECT_EQ(type_of(device.read_frame()), IdentityRequest);
    device.write(image + image + IDENTITY + image);
    expect("RPPPCP");
    press(3);
    EXPECT_EQ(next_payload(device, ButtonMessage), Bytes{3});
    device.write(image);
    shutdown(device.fd(), SHUT_WR);
    expect("RPPPCPPU");
}

TEST_F(CompanionTest, AnswersTheChosenDeviceOnly) {
    const Socket one(SOCK_DGRAM, "127.0.0.1", 3153);
    const Socket other(SOCK_DGRAM, "127.0.0.2", 3153);
    std::string firmware = "fw";  // shows which broadcast the companion has handled last
    const auto call = [&] {
        for (int i = 0; i < 3; ++i) {
            firmware += '9';
            search(one, IDENTITY);
            search(other, identity("22222", firmware));
        }
        EXPECT_TRUE(wait_until([&] {
            const auto devices = m_watched.devices();
            return !devices.empty() && devices[0].identity == "22222" &&
                   devices[0].firmware == firmware;
        }));
    };
    call();
    EXPECT_TRUE(wait_until([this] { return status().several; }));
    EXPECT_FALSE(one.readable(0ms) || other.readable(0ms));
    ASSERT_EQ(m_watched.devices().size(), 2u);
    EXPECT_EQ(m_watched.devices()[1].address, "127.0.0.1");
    for (const std::string choice : {"22222", "127.0.0.1"}) {
        m_companion.choose(choice);
        EXPECT_TRUE(wait_until([&] { return status().wanted == choice; }));
        call();
        const Socket& chosen = choice == "22222" ? other : one;
        for (int i = 0; i < 3; ++i) EXPECT_EQ(chosen.read_some(HEADER_SIZE), frame(ConnectRequest));
        EXPECT_FALSE(one.readable(0ms) || other.readable(0ms));
    }
    EXPECT_TRUE(connect_from("127.0.0.2").ended());

    // The companion must stay with this device, although the device's identity changes.
    Socket device = connect_from("127.0.0.1");
    device.write(identity("33333") + frame(ImageMessage));
    EXPECT_TRUE(wait_until([this] { return status().identity == "33333"; }));
    device.reset();
    EXPECT_TRUE(wait_until([this] { return status().wanted == "33333"; }));
    call();
    EXPECT_EQ(one.read_some(HEADER_SIZE), frame(ConnectRequest));
    EXPECT_FALSE(other.readable(0ms));
}

// A computer with two interfaces in one network receives each broadcast twice.
TEST_F(CompanionTest, ABroadcastThatArrivesTwiceHidesNoOtherDevice) {
    const Socket one(SOCK_DGRAM, "127.0.0.1", 3153);
    const Socket other(SOCK_DGRAM, "127.0.0.2", 3153);
    for (int i = 0; i < 2; ++i) search(one, IDENTITY);
    for (int i = 0; i < 2; ++i) search(other, identity("22222"));
    EXPECT_TRUE(wait_until([this] { return status().several; }));
    EXPECT_FALSE(one.readable(0ms) || other.readable(0ms));
}

TEST_F(CompanionTest, RepeatedChoiceKeepsALinkWhoseIdentityIsUnknown) {
    std::atomic<int> images = 0;
    m_watched.on_image = [&] { ++images; };
    m_companion.choose("ABCDE");
    ASSERT_TRUE(wait_until([this] { return status().wanted == "ABCDE"; }));
    const Socket device = connect();
    for (int count = 1; count <= 3; ++count) {
        device.write(frame(ImageMessage, payload({1, 1})));
        ASSERT_TRUE(wait_until([&] { return images == count; }));
        m_companion.choose("ABCDE");
    }
    device.write(IDENTITY);
    EXPECT_TRUE(wait_until([this] { return status().identity == "ABCDE"; }));
}

TEST_F(CompanionTest, ADeviceThatReadsLateStillGetsEverything) {
    const Socket device = connect();
    identify(device);
    const Chatter chatter(device, frame(DataMessage));  // keeps the link alive without reading

    const auto text = [](size_t i) { return std::to_string(i) + std::string(4000, '.'); };
    constexpr size_t TOO_MANY = 10'000;  // 40 MB: more than the socket buffers hold
    size_t queued = 0;
    for (int refused = 0; refused < 50 && queued < TOO_MANY; ++refused) {
        while (queued < TOO_MANY && m_companion.send_text(text(queued))) ++queued;
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_LT(queued, TOO_MANY);
    EXPECT_FALSE(m_companion.send_text(std::string(Companion::max_text + 1, 'x')));
    for (size_t i = 0; i < queued; ++i) {
        ASSERT_EQ(next_payload(device, DataMessage), bytes(text(i)));
    }
}

TEST_F(CompanionTest, TakesTheNewestThatSpeaksAndRefusesOtherDevices) {
    const Socket first = connect();
    identify(first);

    const Socket stranger(SOCK_DGRAM, "127.0.0.2", 3153);
    search(stranger, IDENTITY);
    EXPECT_TRUE(connect_from("127.0.0.2").ended());

    const Socket second = connect();
    identify(second);
    EXPECT_TRUE(wait_until([&] { return first.drain(); }));
    read_until(second, ControlMessage);
}

TEST_F(CompanionTest, LinksAgainAfterTheDeviceIsGone) {
    for (int i = 0; i < 3; ++i) {
        Socket device = connect();
        device.write(bytes("garbage") + frame(ImageMessage, bytes("x")) + frame(77));
        identify(device);
        if (i == 0) device.write(Bytes(STARTING_SEQUENCE.begin(), STARTING_SEQUENCE.end()));
        if (i != 1) device.reset();  // the second device only stops sending
        EXPECT_TRUE(m_watched.loses_its_link());
    }
}

TEST_F(CompanionTest, TellsThatItsPortsAreTaken) {
    EXPECT_THAT([] { find_devices(0ms); },
                testing::ThrowsMessage<std::runtime_error>(
                    testing::HasSubstr("is another companion running?")));
}

TEST_F(CompanionTest, EachOfSeveralCompanionsHasADeviceOfItsOwn) {
    std::atomic<bool> waits{false}, go_on{false};
    Watched one("11111"), two("22222");
    const Socket second = begin("127.0.0.2", "22222");
    const Chatter second_lives(second, frame(DataMessage));
    const Socket first = begin("127.0.0.1", "11111");
    const Chatter first_lives(first, frame(DataMessage));
    EXPECT_TRUE(one.links_to("11111", "127.0.0.1") && two.links_to("22222", "127.0.0.2"));
    // The other two devices are not in the way of a companion that takes the only one in sight.
    const Socket third = connect("127.0.0.3");
    const Chatter third_lives(third, frame(DataMessage));
    identify(third);

    // A companion whose handler takes its time delays no other.
    one.companion.press(1, [&](Delivery) {
        waits = true;
        wait_until([&] { return go_on.load(); });
    });
    EXPECT_EQ(next_payload(first, ButtonMessage), Bytes{1});
    read_until(first, IdentityRequest);
    first.write(identity("11111"));
    EXPECT_TRUE(wait_until([&] { return waits.load(); }));
    two.companion.press(2);
    m_companion.press(3);
    EXPECT_EQ(next_payload(second, ButtonMessage), Bytes{2});
    EXPECT_EQ(next_payload(third, ButtonMessage), Bytes{3});
    go_on = true;
}

TEST_F(CompanionTest, SeveralCompanionsNeverMixTheirDevicesUp) {
    Watched one("11111"), two("22222");
    Socket first = begin("127.0.0.1", "11111");
    Socket second = begin("127.0.0.2", "22222");
    std::optional<Chatter> first_lives(std::in_place, first, frame(DataMessage));
    std::optional<Chatter> second_lives(std::in_place, second, frame(DataMessage));
    EXPECT_TRUE(one.links_to("11111", "127.0.0.1") && two.links_to("22222", "127.0.0.2"));

    // A second device with the same identity is refused.
    search(Socket(SOCK_DGRAM, "127.0.0.4", 3153), identity("22222"));
    EXPECT_TRUE(connect_from("127.0.0.4").ended());

    // The first device changes its identity into the other's, and both come back.
    first.write(identity("22222"));
    EXPECT_TRUE(one.links_to("22222", "127.0.0.1"));
    first_lives.reset();
    second_lives.reset();
    first.reset();
    second.reset();
    EXPECT_TRUE(one.loses_its_link() && two.loses_its_link());
    first = begin("127.0.0.1", "22222");
    second = begin("127.0.0.2", "22222");
    EXPECT_TRUE(one.links_to("22222", "127.0.0.1") && two.links_to("22222", "127.0.0.2"));

    // Another device comes to the first one's address, and the first one to a new address.
    Watched three("33333");
    first.reset();
    EXPECT_TRUE(one.loses_its_link());
    const Socket third = begin("127.0.0.1", "33333");
    EXPECT_TRUE(three.links_to("33333", "127.0.0.1"));
    first = begin("127.0.0.5", "11111");
    EXPECT_TRUE(one.links_to("11111", "127.0.0.5"));

    // The second device has fallen silent, and comes back at a new address.
    const Socket moved = begin("127.0.0.6", "22222");
    EXPECT_TRUE(two.links_to("22222", "127.0.0.6"));
}

TEST_F(CompanionTest, AnotherDeviceNeverTakesThePlaceOfALostOneWithItsIdentity) {
    Socket lost = begin("127.0.0.1", "11111");
    std::optional<Chatter> lives(std::in_place, lost, frame(DataMessage));
    EXPECT_TRUE(m_watched.links_to("11111", "127.0.0.1"));
    const Socket other(SOCK_DGRAM, "127.0.0.2", 3153);
    const auto search_until = [&](const std::function<bool()>& condition) {
        return wait_until([&] {
            search(other, identity("11111"));
            return condition();
        });
    };
    const auto start = std::chrono::steady_clock::now();
    // For the first 6 s, both addresses might be the same device's.
    EXPECT_TRUE(search_until([&] { return std::chrono::steady_clock::now() - start > 7s; }));
    lives.reset();
    lost.reset();
    EXPECT_TRUE(search_until([&] { return !status().linked; }));
    search(other, identity("11111"));
    lost = begin("127.0.0.1", "11111");
    EXPECT_TRUE(m_watched.links_to("11111", "127.0.0.1"));
    EXPECT_FALSE(other.readable(0ms));
}

}  // namespace
}  // namespace guilink
