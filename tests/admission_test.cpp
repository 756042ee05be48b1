#include "net/admission.h"

#include <gtest/gtest.h>

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

}  // namespace
