#include "net/admission.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <list>
#include <memory>
#include <utility>

namespace {

TEST(Admission, LimitsTheConnectionsToAHostInASearch) {
    Admission admission;
    for (int i = 0; i < Admission::MAX_OF_HOST; ++i) EXPECT_TRUE(admission.admit(1));
    EXPECT_FALSE(admission.admit(1));
    EXPECT_TRUE(admission.admit(2));
    admission.begin_search();
    EXPECT_TRUE(admission.admit(1));
}

// A neighbour answers under more addresses than are remembered.
TEST(Admission, RefusesNobodyForTheAnswersOfOthers) {
    Admission admission;
    for (uint32_t host = 2; host < 3 * Admission::MAX_REMEMBERED; ++host) {
        EXPECT_TRUE(admission.admit(host));
    }
    EXPECT_TRUE(admission.admit(1));
}

struct Candidate {
    bool connected() const { return is_connected; }
    bool is_connected;
};

TEST(Admission, TheOldestOfTheMajorityMakesRoom) {
    std::list<std::unique_ptr<Candidate>> candidates;
    const auto after_adding = [&](std::initializer_list<bool> connected) {
        for (const bool each : connected) {
            candidates.emplace_back(new Candidate{each});
        }
        const auto victim = Admission::makes_room(candidates);
        const auto position = std::distance(candidates.begin(), victim);
        candidates.erase(victim);
        return position;
    };
    EXPECT_EQ(after_adding({false, false, false}), 0);  // left: two unconnected
    EXPECT_EQ(after_adding({true, true}), 0);           // as many of each; left: one, two
    EXPECT_EQ(after_adding({}), 1);                     // left: one of each
    EXPECT_EQ(after_adding({false}), 0);                // left: connected, unconnected
    EXPECT_EQ(after_adding({true, true}), 0);
}

struct FleetingCandidate {
    bool connected() { return std::exchange(is_connected, !is_connected); }
    bool is_connected;
};

TEST(Admission, OneMakesRoomWhileAllConnectionsBeginOrEnd) {
    for (const bool connected : {true, false}) {
        std::list<std::unique_ptr<FleetingCandidate>> candidates;
        candidates.emplace_back(new FleetingCandidate{connected});
        EXPECT_EQ(Admission::makes_room(candidates), candidates.begin());
    }
}

}  // namespace
