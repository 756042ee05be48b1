// Tests the service from outside: its binary, its sockets, its signals.
#include <gtest/gtest.h>

#include <random>

#include "tests/support/recovery.h"

namespace {

using namespace guilink;
using namespace guilink::test;

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
    std::ofstream("/tmp/FL0/kel.ini") << "X=1\nBODY_QR=AB\n";
    Daemon daemon;
    EXPECT_EQ(WTERMSIG(daemon.status()), SIGABRT);
}

// A frame that cannot be mapped ends the service by a signal, so its log must name the address.
TEST(Service, NamesAnAddressThatItCannotMap) {
    std::filesystem::remove("/dev/mem");
    Daemon daemon;
    Core core;
    wait_until([&] { return core.push() || !daemon.alive(); });
    EXPECT_TRUE(daemon.wait_for_output(
        "IpcGuiFetcher: cannot map 0x10000000: No such file or directory\n"));
}

// Sends SIGTERM at a random time after the first registration, which installs the handler.
// Meanwhile, frames arrive at full speed, and a companion links whenever it can and presses a
// button.
TEST(Service, TermEndsItWithStatus0UnderFullLoad) {
    const double rounds = number_in("GUILINK_TERM_ROUNDS", 5);
    const FarHost far;
    GoodCompanion companion(far);
    const Frames at_full_speed;
    std::random_device random;
    std::chrono::duration<double> slowest{0};
    for (int i = 0; i < rounds; ++i) {
        Daemon daemon(Daemon::Until::Detached);
        Core core;
        ASSERT_TRUE(wait_until([&] { return core.push(); }));
        const auto press = [&] {
            companion.press(1);
            return false;
        };
        wait_until(press, random() % 3000 * 1ms);
        const auto signalled = std::chrono::steady_clock::now();
        ASSERT_EQ(daemon.terminate(), 0) << daemon.output();
        slowest = std::max(slowest, {std::chrono::steady_clock::now() - signalled});
    }
    std::printf("%.0f rounds, the slowest of which took %.3f s\n", rounds, slowest.count());
}

}  // namespace
