#include "link/read_frame.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

// Unreadable pages surround the source, so a load outside of it ends the test.
TEST(ReadFrame, CopiesFromAnyByteToAnyByteAndReadsNothingElse) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto* const start = static_cast<unsigned char*>(
        mmap(nullptr, 3 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    unsigned char* const first = start + page;
    ASSERT_EQ(mprotect(first, page, PROT_READ | PROT_WRITE), 0);
    std::iota(first, first + page, uint8_t{1});

    const auto expect_copy = [&](const unsigned char* from, size_t size) {
        for (const auto& copy : {CopyWide, ReadFrame}) {
            std::vector<unsigned char> copied(size + 2, 0xEE);
            copy(&copied[1], from, size);
            EXPECT_EQ(copied.front(), 0xEE);
            EXPECT_EQ(copied.back(), 0xEE);
            EXPECT_TRUE(std::equal(from, from + size, &copied[1]))
                << size << " at " << from - first;
        }
    };
    for (size_t size = 0; size < 400; ++size) {
        for (size_t offset = 0; offset < 16; ++offset) expect_copy(first + offset, size);
        expect_copy(first + page - size, size);
    }
    expect_copy(first, page);
}

}  // namespace
