#include "protocol/veltrane_communicator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/raw_companion.h"

namespace {

using namespace guilink::test;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* UNSUPPORTED = "VeltraneCommunicator: received unsupported message type\n";
constexpr const char* OVERLOADED = "VeltraneCommunicator: buffer overloaded!\n";
constexpr uint32_t LARGEST = 1'048'534;  // bytes; the largest payload that a receiver accepts

Bytes damaged(Bytes frame) {
    frame[CHECKSUM_OFFSET] ^= 1;
    return frame;
}

// A communicator that records three kinds of events: a message is delivered, `signal` is called, or
// SendIdentity is called.
class Receiver : public VeltraneCommunicator {
  public:
    Receiver() : VeltraneCommunicator("11111", "fw1.1") {
        SetMessageHandler([this](uint16_t type, const Bytes& payload) {
            m_events.push_back(std::to_string(type) + ":" +
                               std::string(payload.begin(), payload.end()));
        });
    }
    void SendIdentity() override { m_events.push_back("identity"); }

    void feed(const Bytes& chunk, bool deliver_all = true) {
        OnDataReceived(
            chunk.data(), chunk.size(), [this] { m_events.push_back("signal"); }, deliver_all);
    }

    std::vector<std::string> events() { return std::exchange(m_events, {}); }

  private:
    std::vector<std::string> m_events;
};

TEST(VeltraneCommunicator, IdentityHasFiveBytes) {
    for (const char* id : {"", "1234", "123456"}) {
        try {
            const VeltraneCommunicator communicator(id, "fw1.1");
            ADD_FAILURE() << id;
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "ID size must be 5 bytes");
        }
    }
    EXPECT_EQ(VeltraneCommunicator("A1B2C", "fw1.1").GetIdentityFrame(),
              frame(IdentityMessage, bytes("A1B2Cfw1.1")));
    EXPECT_EQ(VeltraneCommunicator("A1B2C", "").GetIdentityFrame(),
              frame(IdentityMessage, bytes("A1B2C")));
}

TEST(VeltraneCommunicator, EverySplitOfAStreamGivesTheSameMessages) {
    const Bytes stream = frame(ControlMessage, bytes("a")) +
                         damaged(frame(ButtonMessage, bytes("lost"))) + frame(ConnectRequest) +
                         frame(ButtonMessage, bytes("bc")) + frame(IdentityRequest) +
                         frame(DataMessage);
    const auto expected = ElementsAre("0:a", "signal", "1:bc", "identity", "6:");
    Receiver receiver;
    for (size_t split = 0; split <= stream.size(); ++split) {
        const auto middle = stream.begin() + static_cast<ptrdiff_t>(split);
        receiver.feed({stream.begin(), middle});
        receiver.feed({middle, stream.end()});
        ASSERT_THAT(receiver.events(), expected) << "split at " << split;
    }
    for (const unsigned char byte : stream) receiver.feed({byte});
    EXPECT_THAT(receiver.events(), expected);
}

const Bytes GARBAGE(40, 0x5A);
const Bytes GOOD = frame(DataMessage, bytes("x"));
const Bytes LARGE = frame(DataMessage, Bytes(LARGEST, 'x'));

Bytes first(size_t count, const Bytes& data) {
    return {data.begin(), data.begin() + static_cast<ptrdiff_t>(count)};
}
Bytes rest(size_t start, const Bytes& data) {
    return {data.begin() + static_cast<ptrdiff_t>(start), data.end()};
}

TEST(VeltraneCommunicator, DamageLosesThisAndFindsTheNextFrame) {
    const struct {
        const char* name;
        std::vector<Bytes> chunks;
        std::vector<std::string> expected;
        std::string message = {};
    } table[] = {{"GarbageBeforeAFrame", {first(10, GARBAGE) + GOOD}, {"6:x"}},
                 {"GarbageBetweenFrames", {GOOD + GARBAGE + GOOD}, {"6:x", "6:x"}},
                 {"GarbageAlone", {GARBAGE}, {}},
                 {"GarbageShorterThanASearch", {first(31, GARBAGE), GOOD}, {"6:x"}},
                 {"GarbageTakesAHalfStartAlong", {GARBAGE + first(31, GOOD), rest(31, GOOD)}, {}},
                 {"GarbageLeavesAWholeStart", {GARBAGE + first(32, GOOD), rest(32, GOOD)}, {"6:x"}},
                 {"WrongChecksum", {damaged(GOOD) + GOOD}, {"6:x"}},
                 {"WrongChecksumOfNothing", {damaged(frame(DataMessage)) + GOOD}, {"6:x"}},
                 {"LengthIsTrustedInspiteOfTheChecksum", {damaged(frame(DataMessage, GOOD))}, {}},
                 {"AnnouncedLengthSwallowsTheNext",
                  {announcing(static_cast<uint32_t>(1 + GOOD.size()), GOOD), GOOD},
                  {}},
                 {"LargestFrame", {LARGE}, {"6:" + std::string(LARGEST, 'x')}},
                 {"LargerThanTheLargest", {announcing(LARGEST + 1, GOOD) + GOOD}, {}},
                 {"LengthThatWouldOverflow", {announcing(0xFFFFFFFF, GOOD) + GOOD}, {}},
                 {"Overload", {first(1'048'000, LARGE), Bytes(600, 'x')}, {}, OVERLOADED},
                 {"OverloadAtOnce", {Bytes(1'048'577)}, {}, OVERLOADED},
                 {"FullToTheBrim",
                  {first(1'048'000, LARGE), rest(1'048'000, LARGE)},
                  {"6:" + std::string(LARGEST, 'x')}}};
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        Receiver receiver;
        testing::internal::CaptureStderr();
        for (const Bytes& chunk : row.chunks) receiver.feed(chunk);
        EXPECT_EQ(receiver.events(), row.expected);
        receiver.feed(frame(DataMessage, bytes("next")));
        EXPECT_THAT(receiver.events(), ElementsAre("6:next"));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.message);
    }
}

TEST(VeltraneCommunicator, TypesAndDelivery) {
    struct {
        uint16_t type;
        std::vector<std::string> candidate;
        std::vector<std::string> link;
        std::string message;
    } const table[] = {
        {ControlMessage, {"0:x"}, {"0:x"}, ""},
        {ButtonMessage, {}, {"1:x"}, ""},
        {ImageMessage, {}, {}, UNSUPPORTED},
        {IdentityMessage, {}, {}, UNSUPPORTED},
        {ConnectRequest, {"signal"}, {"signal"}, ""},
        {IdentityRequest, {"identity"}, {"identity"}, ""},
        {DataMessage, {}, {"6:x"}, ""},
        {7, {}, {}, UNSUPPORTED},
        {256, {}, {}, UNSUPPORTED},
        {65535, {}, {}, UNSUPPORTED},
    };
    Receiver receiver;
    for (const auto& row : table) {
        const Bytes chunk = frame(row.type, bytes("x"));
        testing::internal::CaptureStderr();
        receiver.feed(chunk, false);
        EXPECT_EQ(receiver.events(), row.candidate) << row.type;
        receiver.feed(chunk, true);
        EXPECT_EQ(receiver.events(), row.link) << row.type;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.message + row.message) << row.type;
    }

    receiver.SetMessageHandler({});
    const Bytes all = frame(ConnectRequest) + frame(DataMessage) + frame(ControlMessage);
    receiver.OnDataReceived(all.data(), all.size(), {}, true);  // signal and handler are empty
    EXPECT_THAT(receiver.events(), IsEmpty());
}

TEST(VeltraneCommunicator, ExceptionLeavesTheFrame) {
    Receiver receiver;
    std::string taken;
    bool broken = true;
    receiver.SetMessageHandler([&](uint16_t, const Bytes& payload) {
        if (payload.size() == 1 && std::exchange(broken, false))
            throw std::runtime_error("handler");
        taken += static_cast<char>(payload[0]);
    });
    const Bytes big = frame(DataMessage, Bytes(500'000, '-'));
    const Bytes tail = frame(DataMessage, bytes("d"));
    EXPECT_THROW(receiver.feed(big + frame(DataMessage, bytes("b")) + big + first(40, tail)),
                 std::runtime_error);
    receiver.feed(rest(40, tail) + big);
    EXPECT_EQ(taken, "-b-d-");
}

TEST(VeltraneCommunicator, SignalMayEmptyItself) {
    Receiver receiver;
    const Bytes requests = frame(ConnectRequest) + frame(ConnectRequest);
    std::string calls;
    std::function<void()> signal = [&signal, &calls,
                                    call = std::string("called with all it holds")] {
        signal = {};
        calls += call;
    };
    receiver.OnDataReceived(requests.data(), requests.size(), signal, false);
    EXPECT_EQ(calls, "called with all it holds");
}

// Runs `action` on a new thread, which is a new connection. It ends with the thread.
void on_a_connection(const std::function<void()>& action) {
    std::thread(action).join();
}

TEST(VeltraneCommunicator, EachConnectionKeepsItsOwnHalfFrame) {
    Receiver receiver;
    receiver.feed(first(40, GOOD));
    on_a_connection([&] { receiver.feed(first(20, GOOD) + GARBAGE); });
    on_a_connection([&] { receiver.feed({}); });
    receiver.OnDataReceived(nullptr, 0, {}, false);
    receiver.feed(rest(40, GOOD));
    EXPECT_THAT(receiver.events(), ElementsAre("6:x"));

    // What an ended connection has left counts no longer. Otherwise, the 600,000 bytes would be the
    // largest of too many.
    on_a_connection([&] { receiver.feed(first(500'000, LARGE), false); });
    receiver.feed(first(600'000, LARGE), false);
    receiver.feed(rest(600'000, LARGE));
    EXPECT_THAT(receiver.events(), ElementsAre("6:" + std::string(LARGEST, 'x')));
}

TEST(VeltraneCommunicator, ConnectionsKeepAMebibyteTogether) {
    Receiver receiver;
    receiver.feed(first(41, GOOD), false);
    on_a_connection([&] {
        // All incomplete frames together exceed MAX_SIZE. So the communicator drops the longest
        // one, which has arrived on this connection.
        receiver.feed(first(MAX_SIZE - 40, LARGE), false);
        receiver.feed(rest(MAX_SIZE - 40, LARGE), false);
    });
    on_a_connection([&] {
        receiver.feed(first(900'000, LARGE), false);
        // The incomplete frames exceed MAX_SIZE again. The communicator must drop the 900,000
        // bytes, because the next connection is the link.
        on_a_connection([&] {
            receiver.feed(first(600'000, LARGE));
            receiver.feed(rest(600'000, LARGE));
        });
        receiver.feed(rest(900'000, LARGE));
    });
    receiver.feed(rest(41, GOOD));
    EXPECT_THAT(receiver.events(), ElementsAre("6:" + std::string(LARGEST, 'x'), "6:x"));
}

TEST(VeltraneCommunicator, SendsOverTheLink) {
    const LastThreadsEnd last_threads_end;
    RawCompanion companion;
    const auto communicator = std::make_shared<VeltraneCommunicator>("11111", "fw1.1");
    std::atomic<int> buttons{0};  // presses that arrived on the link
    communicator->SetMessageHandler([&](uint16_t, const Bytes&) { ++buttons; });
    communicator->SendIdentity();  // sends nothing, because there is no controller
    const auto controller = std::make_shared<NetworkController>(communicator);
    communicator->SetController(controller);
    const Socket link =
        companion.link(frame(ConnectRequest) + frame(ButtonMessage), [&] { return buttons > 0; });
    const Chatter chatter(link, frame(ControlMessage));

    communicator->SendImage(nullptr, 0, 0);  // sends nothing, because there is no previous image
    communicator->SendIdentity();
    EXPECT_EQ(link.read_frame(), frame(IdentityMessage, bytes("11111fw1.1")));
    link.write(frame(IdentityRequest));
    EXPECT_EQ(link.read_frame(), frame(IdentityMessage, bytes("11111fw1.1")));

    const std::vector<uint16_t> pixels = {0xF001, 0xF001, 0xF002};
    const Bytes image = frame(ImageMessage, {3, 0, 1, 0, 2, 0, 0x01, 0xF0});
    communicator->SendImage(pixels.data(), 3, 1);
    communicator->SendImage(nullptr, 3, 1);
    communicator->SendImage(pixels.data(), 0, 1);
    communicator->SendImage(pixels.data(), 3, 0);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(link.read_frame(), image);

    // The encoding of these pixels is too large for a message. So the first call of SendImage sends
    // nothing, and the second call has no image to repeat.
    std::vector<uint16_t> noise(262'145);
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<uint16_t>(0x8000 + i % 2);
    communicator->SendImage(noise.data(), 52'429, 5);
    communicator->SendImage(nullptr, 0, 0);
    communicator->SendData(nullptr, 5);
    communicator->SendData(bytes("x").data(), 0);
    communicator->SendData(bytes("hello").data(), 5);
    EXPECT_EQ(link.read_frame(), frame(DataMessage, bytes("hello")));
}

}  // namespace
