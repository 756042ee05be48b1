// The service from outside: its binary, its sockets, its signals.
#include <gtest/gtest.h>

#include <atomic>
#include <random>

#include "tests/support/core.h"
#include "tests/support/daemon.h"

namespace {

using namespace guilink;
using namespace guilink::test;

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
    EXPECT_EQ(companion.hear(), frame(IdentityMessage, bytes("11111fw1.1")));
    EXPECT_EQ(ntohs(companion.device().sin_port), 3153);
    EXPECT_EQ(daemon.terminate(), 0) << daemon.output();
    EXPECT_EQ(daemon.output(), "");
}

TEST(Service, EndsAbnormallyWithAnIdentityOfAnotherLength) {
    std::ofstream("/tmp/FL0/kel.ini") << "BODY_QR=AB\n";
    Daemon daemon;
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
