// The service from outside: its binary, its sockets, its signals.
#include <gtest/gtest.h>

#include <atomic>
#include <random>

#include "tests/support/core.h"
#include "tests/support/daemon.h"

namespace {

using namespace guilink;
using namespace guilink::test;

void write_settings(const std::string& text) {
    std::ofstream("/tmp/FL0/kel.ini") << text;
}

Bytes identity(const std::string& id) {
    return frame(IdentityMessage, bytes(id + "fw1.1"));
}

// Everything at once for as long as it lives: frames at full speed, and a companion that links
// whenever it can, keeps alive, asks and presses.
class Load {
  public:
    Load() : m_peer([this] { talk(); }) {}
    ~Load() {
        m_stop = true;
        m_peer.join();
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

  private:
    void talk() {
        RawCompanion companion;
        while (!m_stop) {
            const std::optional<Socket> link = companion.connection_within(100ms);
            try {
                while (link && !m_stop) {
                    for (const uint16_t type : {ConnectRequest, ControlMessage, IdentityRequest}) {
                        link->write(frame(type));
                    }
                    link->write(frame(ButtonMessage, {1}));
                    while (link->readable(5ms)) link->read_frame();
                }
            } catch (const std::runtime_error&) {  // the service is gone, or had a better candidate
            }
        }
    }

    std::atomic<bool> m_stop{false};
    const Frames m_frames;
    std::thread m_peer;
};

TEST(Service, DetachesAndKeepsItsStreams) {
    Daemon daemon;
    const std::string process = "/proc/" + std::to_string(daemon.pid());
    EXPECT_EQ(std::filesystem::read_symlink(process + "/cwd"), "/");
    EXPECT_EQ(getsid(daemon.pid()), daemon.pid());
    EXPECT_TRUE(std::filesystem::read_symlink(process + "/fd/1").string().starts_with("pipe:"));

    RawCompanion companion;
    EXPECT_EQ(companion.hear(), identity("11111"));
    EXPECT_EQ(ntohs(companion.device().sin_port), 3153);
    EXPECT_EQ(daemon.terminate(), 0) << daemon.output();
    EXPECT_EQ(daemon.output(), "");
}

TEST(Service, TakesItsIdentityFromTheSettings) {
    const std::pair<const char*, const char*> cases[] = {
        {"X=1\nBODY_QR=ABCDEFG\nBODY_QR=VWXYZ\n", "ABCDE"},
        {"BODY_QR=ABCD\r\n", "ABCD\r"},
        {"body_qr=ABCDE\n BODY_QR=ABCDE\n", "11111"},
        {"BODY", "11111"},
    };
    for (const auto& [settings, id] : cases) {
        write_settings(settings);
        Daemon daemon;
        RawCompanion companion;
        EXPECT_EQ(companion.hear(), identity(id)) << settings;
        EXPECT_EQ(daemon.terminate(), 0) << daemon.output();
    }
}

TEST(Service, EndsAbnormallyWithAnIdentityOfAnotherLength) {
    write_settings("BODY_QR=AB\n");
    Daemon daemon;
    EXPECT_EQ(WTERMSIG(daemon.status()), SIGABRT);
}

TEST(Service, ButtonComesBackAsADatagram) {
    Daemon daemon;
    RawCompanion companion;
    const Socket control_service(SOCK_DGRAM, "127.0.0.1", 3426);
    const Socket link = companion.link(frame(ConnectRequest) + frame(ButtonMessage, {7}),
                                       [&] { return control_service.readable(0ms); });
    EXPECT_EQ(control_service.read_some(), bytes(R"([{"msg_id":107,"param":"On"}])"));
    EXPECT_TRUE(daemon.wait_for_output("connected\nBUTTON 7\n"));
    EXPECT_EQ(daemon.terminate(), 0) << daemon.output();
}

TEST(Service, QrBodyOfAnotherLengthEndsItAbnormally) {
    Daemon daemon;
    Core core;
    EXPECT_TRUE(wait_until([&] {
        core.send_qr_body("ABCD");
        return !daemon.alive();
    }));
    EXPECT_EQ(WTERMSIG(daemon.status()), SIGABRT);
}

// From the first registration on; before it the signal's default action is right.
TEST(Service, TermEndsItWithStatus0UnderFullLoad) {
    const char* const asked = std::getenv("GUILINK_TERM_ROUNDS");
    const int rounds = asked != nullptr ? std::stoi(asked) : 5;
    const Load load;
    std::random_device random;
    std::chrono::duration<double> slowest{0};
    for (int i = 0; i < rounds; ++i) {
        Daemon daemon(Daemon::Until::Detached);
        Core core;
        ASSERT_TRUE(wait_until([&] { return core.push(); }));
        std::this_thread::sleep_for(random() % 3000 * 1ms);
        const auto signalled = std::chrono::steady_clock::now();
        ASSERT_EQ(daemon.terminate(), 0) << daemon.output();
        slowest = std::max(slowest, {std::chrono::steady_clock::now() - signalled});
    }
    std::printf("%d rounds, the slowest of which took %.3f s\n", rounds, slowest.count());
}

}  // namespace
