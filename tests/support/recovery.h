// A fixture which checks that the service recovers from the faults that a test causes.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <utility>

#include "tests/support/core.h"
#include "tests/support/daemon.h"
#include "tests/support/far_host.h"

namespace guilink::test {

#if defined(NDEBUG)
constexpr size_t MEMORY_SLACK = 384;  // KiB; how much RssAnon may grow
#else
constexpr size_t MEMORY_SLACK = SIZE_MAX / 2;  // sanitizers keep freed memory
#endif

// Returns how long something may take: the time that docs/reliability.md promises, if GUILINK_QUIET
// says that the machine is idle.
inline std::chrono::milliseconds limit(std::chrono::milliseconds promised) {
    return std::getenv("GUILINK_QUIET") != nullptr ? promised : LIMIT;
}
constexpr auto RELINK = 5s;

// Returns the number in an environment variable that prolongs a test, or `otherwise`.
inline double number_in(const char* variable, double otherwise) {
    const char* const number = std::getenv(variable);
    return number != nullptr ? std::stod(number) : otherwise;
}

inline double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class Recovery : public testing::Test {
  protected:
    // Links the good companion, and waits until the service's use of resources is stable. m_before
    // then contains this use.
    void SetUp() override {
        Frames::draw_pictures();
        GoodCompanion good(m_far);
        ASSERT_TRUE(wait_until([&] {
            good.press(1);  // the first press makes the service open a socket, which it keeps
            return m_daemon->output().find("BUTTON 1") != std::string::npos;
        }));
        ASSERT_TRUE(wait_until([&] { return settled(); }));
    }

    // The service must link the good companion again, and end with status 0. Its threads,
    // descriptors and memory must be back at the values in m_before.
    void TearDown() override {
        const auto end_of_trouble = std::chrono::steady_clock::now();
        ASSERT_TRUE(m_daemon->alive()) << m_daemon->output();
        const GoodCompanion good(m_far);
        ASSERT_TRUE(good.linked_within(limit(RELINK)));
        const double took = seconds_since(end_of_trouble);

        Daemon::Level after;
        EXPECT_TRUE(wait_until([&] {
            after = m_daemon->level();
            return after.threads <= m_before.threads && after.descriptors <= m_before.descriptors &&
                   after.memory <= m_before.memory + MEMORY_SLACK;
        }));
        std::printf(
            "linked again after %.1f s; threads %zu of %zu, descriptors %zu of %zu, "
            "memory %zu of %zu KiB\n",
            took, after.threads, m_before.threads, after.descriptors, m_before.descriptors,
            after.memory, m_before.memory);
        EXPECT_EQ(m_daemon->terminate(), 0) << m_daemon->output();
    }

    Socket link() { return m_peer.link(); }

    // Requests the identity until an answer arrives; throws if no answer arrives in time.
    static bool answers(const Socket& link) {
        const Chatter chatter(link, frame(IdentityRequest));
        link.read_frame(IdentityMessage);
        return true;
    }

    // Returns whether the service is linked, no search thread is left, and the numbers of threads
    // and descriptors are the same as at the previous call.
    bool settled() {
        const Daemon::Level last = std::exchange(m_before, m_daemon->level());
        return m_daemon->threads("ping-") == 0 && m_daemon->threads("tcp-receive") == 1 &&
               m_before.threads == last.threads && m_before.descriptors == last.descriptors;
    }

    const FarHost m_far;
    const Frames m_frames{100ms};
    std::optional<Daemon> m_daemon{std::in_place};
    RawCompanion m_peer{"127.0.0.3"};
    Daemon::Level m_before = {};
};

}  // namespace guilink::test
