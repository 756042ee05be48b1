// Tests the service on slow and bad networks.
#include "tests/support/cable.h"

#include <array>

#include "tests/support/recovery.h"

namespace {

using namespace guilink::test;

// The good companion is at the far end of a cable.
class RecoveryOverACable : public Recovery {
  protected:
    void press_and_expect(GoodCompanion& good) {
        const std::string before = m_daemon->output();
        for (const uint8_t button : std::array<uint8_t, 3>{4, 5, 6}) good.press(button);
        EXPECT_TRUE(wait_until([&] {
            return m_daemon->output().find("BUTTON 4\nBUTTON 5\nBUTTON 6\n", before.size()) !=
                   std::string::npos;
        }));
    }

    const Cable m_cable;
    const FarHost m_end{m_cable.far_end()};
};

TEST_F(RecoveryOverACable, SlowNetworkCarriesTheNewestImagesAndEachPress) {
    m_cable.set("rate 10");
    const Frames at_60_per_second(16ms);
    GoodCompanion good(m_end, "10.78.0.1");
    EXPECT_TRUE(wait_until([&] { return good.images() > 5; }));
    press_and_expect(good);
}

TEST_F(RecoveryOverACable, LinkSurvivesLossDelayAndDisorder) {
    Frames::draw_pictures(5'000);
    m_cable.set("rate 20 delay 50 loss 5 duplicate 5 reorder 10");
    GoodCompanion good(m_end, "10.78.0.1");
    EXPECT_TRUE(wait_until([&] { return good.images() > 50; }));
    press_and_expect(good);
}

TEST_F(RecoveryOverACable, LongOutageEndsInANewLink) {
    GoodCompanion good(m_end, "10.78.0.1");
    EXPECT_TRUE(good.linked_within(LIMIT));
    m_cable.set("down 1");
    EXPECT_TRUE(wait_until([&] { return good.images() == 0; }));
    while (m_peer.asked()) m_peer.hear();  // old broadcasts
    m_peer.hear();
    m_cable.set("down 0");
    EXPECT_TRUE(good.linked_within(limit(RELINK)));
    press_and_expect(good);
}

}  // namespace
