// Tests the service with misbehaving companions and failing networks.
#include <array>
#include <list>
#include <random>

#include "tests/support/recovery.h"

namespace {

using namespace guilink;
using namespace guilink::test;

// GUILINK_SOAK_MINUTES prolongs this test, so that it also finds what grows slowly.
TEST_F(Recovery, CompanionsComeAndGoInTheMiddleOfAnImage) {
    const double minutes = number_in("GUILINK_SOAK_MINUTES", 0);
    const Frames at_60_per_second(16ms);
    const auto start = std::chrono::steady_clock::now();
    int rounds = 0;
    do {
        for (const auto leave : {&Socket::close, &Socket::reset}) {
            Socket peer = link();
            peer.read(1000);
            (peer.*leave)();
        }
        GoodCompanion good(m_far);
        good.press(1);
        EXPECT_TRUE(wait_until([&] { return good.images() > 20; }));
        if (++rounds % 20 != 0) continue;
        const auto [threads, descriptors, memory] = m_daemon->level();
        std::printf("%4.0f s: %d links, %zu threads, %zu descriptors, %zu KiB\n",
                    seconds_since(start), 3 * rounds, threads, descriptors, memory);
        std::fflush(stdout);
    } while (seconds_since(start) < 60 * minutes);
}

TEST_F(Recovery, PeerStallsWithAFullWindow) {
    const Socket peer = link();
    const Chatter chatter(peer, frame(ControlMessage));
    m_peer.connection();  // returns because the service searches again
}

// While an image is stuck, the service must still handle each message, and answer in order behind
// the image.
TEST_F(Recovery, StuckImageDelaysNoPress) {
    const Socket control(SOCK_DGRAM, "127.0.0.1", 3426);
    const Socket peer = link();
    const Bytes request = frame(IdentityRequest);
    peer.write(request + frame(ButtonMessage, {3}) + request + frame(ControlMessage));
    EXPECT_EQ(control.read_some(), bytes(R"([{"msg_id":103,"param":"On"}])"));
    const Chatter chatter(peer, frame(ControlMessage));
    EXPECT_EQ(type_of(peer.read_frame()), ImageMessage);
    EXPECT_EQ(type_of(peer.read_frame()), IdentityMessage);
    EXPECT_EQ(type_of(peer.read_frame()), IdentityMessage);
    EXPECT_EQ(type_of(peer.read_frame()), ImageMessage);
}

TEST_F(Recovery, StuckImageDelaysNoNewIdentity) {
    const Socket peer = link();
    const Chatter chatter(peer, frame(ControlMessage));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(Core().send_qr_body("QRQR1"));
    std::printf("took the new identity in %.1f s\n", seconds_since(start));
    EXPECT_LT(std::chrono::steady_clock::now() - start, limit(2s));
}

TEST_F(Recovery, PeerAsksAndDoesNotRead) {
    const Socket peer = link();
    const Chatter chatter(peer, repeated(frame(ControlMessage) + frame(IdentityRequest), 1000));
    m_peer.connection();
}

TEST_F(Recovery, PeerAsksToConnectAgainAndAgain) {
    m_peer.link(repeated(frame(ConnectRequest), 5000) + frame(ControlMessage));
}

TEST_F(Recovery, RequestToConnectAfterGarbage) {
    m_peer.link(Bytes(16'374) + frame(ConnectRequest) + frame(ControlMessage));
}

TEST_F(Recovery, PeerTrickles) {
    const Socket peer = link();
    for (const unsigned char byte : frame(ControlMessage) + frame(IdentityRequest)) {
        peer.write({byte});
        std::this_thread::sleep_for(10ms);  // so that each byte arrives alone
    }
    peer.read_frame(IdentityMessage);
}

TEST_F(Recovery, PeerFloodsWhileTheControlServiceIsAbsent) {
    const Bytes flood =
        repeated(frame(ControlMessage), 50'000) + repeated(frame(ButtonMessage, {3}), 1000);
    const Socket peer = link();
    peer.write(flood);
    EXPECT_TRUE(answers(peer));
}

TEST_F(Recovery, PeerSendsGarbageAndAnnouncesHugeLengths) {
    Bytes garbage(0x100000);
    std::generate(garbage.begin(), garbage.end(), std::minstd_rand());
    const Socket peer = link();
    peer.write(garbage);
    EXPECT_TRUE(answers(peer));
    for (const uint32_t length : {LARGEST_PAYLOAD + 1, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        peer.write(announcing(length, frame(DataMessage, Bytes(1000))));
        EXPECT_TRUE(answers(peer)) << length;
    }
}

TEST_F(Recovery, PeerDiesInTheMiddleOfAFrame) {
    for (const Bytes& piece : {announcing(100, frame(DataMessage, Bytes(50))),
                               announcing(LARGEST_PAYLOAD, frame(DataMessage, Bytes(500'000)))}) {
        Socket candidate = m_peer.connection();
        candidate.write(piece);
        candidate.reset();
        Socket peer = link();
        peer.write(piece);
        peer.close();
    }
}

TEST_F(Recovery, CandidateSpeaksBeforeItIsAccepted) {
    for (int i = 0; i < 5; ++i) {
        const Socket candidate = m_peer.connection();
        candidate.write(frame(ButtonMessage, {9}) + frame(DataMessage, bytes("early")));
        candidate.write(frame(ImageMessage, Bytes(100'000)) + frame(ControlMessage));
    }
    EXPECT_EQ(m_daemon->output().find("BUTTON 9"), std::string::npos);
    EXPECT_EQ(m_daemon->output().find("USER"), std::string::npos);
}

// Each candidate sends a different button. The service must obey only the button sent on the link.
TEST_F(Recovery, OneOfSeveralCandidatesBecomesTheLink) {
    struct Candidate {
        Candidate(Socket&& from, uint8_t number)
            : socket(std::move(from)),
              chatter(socket, frame(ConnectRequest) + frame(ControlMessage) +
                                  frame(ButtonMessage, {number})),
              line("BUTTON " + std::to_string(number) + "\n") {}
        Socket socket;
        Chatter chatter;
        std::string line;
    };
    std::list<Candidate> candidates;
    while (candidates.empty()) {
        std::vector<RawCompanion> hosts;
        for (int i = 0; i < 10; ++i) hosts.emplace_back(("127.0.1.1" + std::to_string(i)).c_str());
        for (RawCompanion& host : hosts) host.hear();
        for (const RawCompanion& host : hosts) host.answer();
        std::vector<Socket> offers;
        for (const RawCompanion& host : hosts) {
            const auto offered = [&] { return host.offered(); };
            if (wait_until(offered, 100ms)) offers.push_back(host.accept());
        }
        // An earlier search of the service may have received the answers. If so, try again.
        if (offers.size() < 2) continue;
        uint8_t number = 0;
        for (Socket& offer : offers) candidates.emplace_back(std::move(offer), ++number);
        EXPECT_TRUE(wait_until([&] {
            std::erase_if(candidates, [](const auto& each) { return each.socket.drain(); });
            return candidates.empty() ||
                   (candidates.size() == 1 &&
                    m_daemon->output().find(candidates.front().line) != std::string::npos);
        }));
    }
}

TEST_F(Recovery, InterfaceGoesComesAndChangesItsAddress) {
    const GoodCompanion good(m_far);
    ASSERT_TRUE(good.linked_within(LIMIT));
    for (const char* const address : {"10.77.0.9", "10.77.0.1"}) {
        // Change the interface's address only while linked. Without a link, the service might
        // search at that moment, and abort because it cannot bind to the old address.
        EXPECT_TRUE(wait_until([&] { return good.images() > 5; }));
        run("ip address flush dev guilink0");
        run("ip address add " + std::string(address) + "/24 broadcast + dev guilink0");
        run("ip link set guilink0 down");
        EXPECT_TRUE(wait_until([&] { return good.images() == 0; }));
        run("ip link set guilink0 up");
        EXPECT_TRUE(good.linked_within(limit(RELINK)));
    }
}

TEST_F(Recovery, CoreCallsAtFullSpeedFromTheFirstInstant) {
    m_daemon.reset();
    const Frames at_full_speed;
    m_daemon.emplace();
    EXPECT_TRUE(answers(link()));
}

TEST_F(Recovery, IdentityChangesBackToBackUnderTraffic) {
    const GoodCompanion good(m_far);
    const Frames at_full_speed;
    Core core;
    for (const char* const id : {"QRQR1", "QRQR2", "QRQR3", "QRQR4", "QRQR5"}) {
        EXPECT_TRUE(wait_until([&] { return core.send_qr_body(id); }));
        const Bytes identity = frame(IdentityMessage, bytes(id + std::string("fw1.1")));
        EXPECT_TRUE(wait_until([&] { return m_peer.hear() == identity; }));
    }
}

TEST(Streams, ReaderThatIsGoneEndsTheServiceBySigpipe) {
    Pipe pipe = open_pipe();
    pipe.reader.close();
    Daemon daemon(Daemon::Until::Started, [&] { dup2(pipe.writer.fd(), STDOUT_FILENO); });
    RawCompanion companion;
    EXPECT_TRUE(wait_until([&] {  // each request makes the service log a line
        if (const auto candidate = companion.connection_within(100ms)) {
            candidate->write(frame(ConnectRequest));
        }
        return !daemon.alive();
    }));
    EXPECT_EQ(WTERMSIG(daemon.status()), SIGPIPE);
}

// The service's standard output or standard error is a pipe that only drain() reads.
class FullPipe : public testing::TestWithParam<int> {
  protected:
    void fill() const {
        fcntl(m_pipe.writer.fd(), F_SETFL, O_NONBLOCK);
        const Bytes rest(4096, '#');
        for (const size_t size : {rest.size(), size_t{1}}) {
            while (write(m_pipe.writer.fd(), rest.data(), size) > 0) {
            }
        }
        // Make the pipe blocking again, because the service shares this file description.
        fcntl(m_pipe.writer.fd(), F_SETFL, 0);
    }
    std::string drain() const {
        fcntl(m_pipe.reader.fd(), F_SETFL, O_NONBLOCK);
        std::string text(0x200000, '\0');
        const ssize_t count = read(m_pipe.reader.fd(), text.data(), text.size());
        text.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return text;
    }

    const Pipe m_pipe = open_pipe();
    Daemon m_daemon{Daemon::Until::Started, [this] { dup2(m_pipe.writer.fd(), GetParam()); }};
    const Frames m_frames{100ms};
    RawCompanion m_companion{"127.0.0.4"};
};

// While the pipe is full, the service loses only log lines, and it counts the lost lines.
TEST_P(FullPipe, LosesLinesAlone) {
    const Socket control(SOCK_DGRAM, "127.0.0.1", 3426);
    Socket link = m_companion.link();
    fill();
    const Bytes noise = frame(DataMessage, Bytes(100'000, 'x')) + frame(ImageMessage);
    for (int i = 0; i < 3; ++i) {
        link.write(noise + frame(ButtonMessage, {3}) + frame(ControlMessage));
        EXPECT_EQ(control.read_some(), bytes(R"([{"msg_id":103,"param":"On"}])"));
    }
    Core core;
    EXPECT_TRUE(core.send_qr_body("QRQR1"));
    link.close();
    link = m_companion.link();
    EXPECT_EQ(type_of(link.read_frame()), ImageMessage);

    drain();
    std::string lines;
    EXPECT_TRUE(wait_until([&] {
        link.write(noise + frame(ControlMessage));
        lines += drain();
        return lines.find(" lines dropped\n") != std::string::npos;
    }));
    EXPECT_EQ(m_daemon.terminate(), 0);
}

TEST_P(FullPipe, UnknownWordsOfANeighbourKeepNobodyOut) {
    fill();
    const Socket neighbour = m_companion.connection();
    const Chatter chatter(neighbour, frame(ImageMessage));
    RawCompanion good("127.0.0.3");
    const Socket control(SOCK_DGRAM, "127.0.0.1", 3426);  // plays the control service
    const Socket link = good.link();
    const Chatter presses(link, frame(ButtonMessage, {5}));
    EXPECT_EQ(control.read_some(), bytes(R"([{"msg_id":105,"param":"On"}])"));
    EXPECT_EQ(m_daemon.terminate(), 0);
}

INSTANTIATE_TEST_SUITE_P(Streams, FullPipe, testing::Values(STDOUT_FILENO, STDERR_FILENO),
                         [](const auto& stream) {
                             return stream.param == STDOUT_FILENO ? "Output" : "Error";
                         });

TEST(Streams, NoneAtAll) {
    Daemon daemon(Daemon::Until::Started, [] {
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(stream);
    });
    const Frames frames(100ms);
    RawCompanion companion;
    EXPECT_EQ(type_of(companion.link().read_frame()), ImageMessage);
    EXPECT_EQ(daemon.terminate(), 0);
}

}  // namespace
