#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/waiting.h"

int main(int argc, char** argv) {
    constexpr int TRY_AGAIN = 75;  // exit status; tests/support/run then tries again
    testing::InitGoogleMock(&argc, argv);
    const int status = RUN_ALL_TESTS();
    return status != 0 && guilink::test::starved ? TRY_AGAIN : status;
}
