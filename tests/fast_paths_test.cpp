// What is fast gives, bit for bit, what the literal way gives.
#include <gtest/gtest.h>
#if defined(__x86_64__)
#include <hwy/targets.h>
#endif

#include <cstdlib>
#include <cstring>
#include <new>
#include <random>

#include "protocol/crc32.h"
#include "protocol/image.h"
#include "protocol/veltrane_communicator.h"
#include "tests/support/literal_crc32.h"
#include "tests/support/literal_encoder.h"
#include "tests/support/raw_companion.h"

namespace {

thread_local uint64_t allocations = 0;  // of this thread

}

// Not inlined: GCC would see malloc and free where it expects a pair of operators.
[[gnu::noinline]] void* operator new(size_t size) {
    ++allocations;
    if (void* const memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept {
    ++allocations;
    return std::malloc(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

namespace {

using namespace guilink;
using Words = std::vector<uint16_t>;

// Runs of up to longest pixels; the values are few, so that some neighbouring runs are one, and lie
// on both sides of the mask's boundary.
Words picture(std::mt19937& random, size_t count, unsigned longest) {
    constexpr uint16_t VALUES[] = {0, 1, 0x0ABC, 0x0FFF, 0x1000, 0x1001, 0x8000, 0xFFFF};
    Words pixels;
    pixels.reserve(count);  // no more, so that a sanitizer sees a read behind them
    while (pixels.size() < count) {
        const uint16_t value = VALUES[random() % std::size(VALUES)];
        const size_t run = 1 + random() % longest;
        pixels.insert(pixels.end(), std::min(run, count - pixels.size()), value);
    }
    return pixels;
}

// Payload and growth, and the same payload elsewhere in the words.
void expect_literal(const Words& pixels, uint16_t width, uint16_t height, size_t room) {
    Words expected(room);
    Words actual(room);
    const uint64_t length = encode_literally(pixels.data(), width, height, expected);
    ASSERT_EQ(EncodeImage(pixels.data(), width, height, actual), length);
    ASSERT_EQ(actual.size(), expected.size());
    ASSERT_EQ(std::memcmp(actual.data(), expected.data(), length), 0);

    Words behind(room + 21, 0xEEEE);
    ASSERT_EQ(EncodeImage(pixels.data(), width, height, behind, 21), length);
    ASSERT_EQ(std::memcmp(behind.data() + 21, expected.data(), length), 0);
    ASSERT_EQ(Words(behind.begin(), behind.begin() + 21), Words(21, 0xEEEE));
}

void expect_literal_pictures() {
    std::mt19937 random(1);
    for (uint16_t count = 0; count < 700; ++count) {
        for (const unsigned longest : {2u, 40u, 300u}) {
            expect_literal(picture(random, count, longest), count, 1, 2 + random() % 50);
        }
    }
    // Chunks meet in all sorts of places, and runs are too long for one word.
    for (const unsigned longest : {2u, 5'000u, 70'000u, 300'000u}) {
        for (int i = 0; i < 2; ++i) {
            const auto width = static_cast<uint16_t>(900 + random() % 200);
            expect_literal(picture(random, size_t{width} * 300, longest), width, 300, 2);
        }
    }
    for (const uint32_t run : {65534u, 65535u}) {
        for (const uint32_t more : {0u, 1u, 2u, 65535u, 65536u}) {
            Words pixels(run + more, 0x8001);
            pixels.resize(size_t{3} * 65535, 0x8002);
            expect_literal(pixels, 65535, 3, 2);
        }
    }
}

TEST(FastPaths, EncodeLiterallyWithAnyInstructions) {
    // The lowest bit is the best set of instructions; Arm has one and nothing to choose from.
#if defined(__x86_64__)
    const int64_t available = hwy::SupportedTargets();
    for (int64_t targets = available; targets != 0; targets &= targets - 1) {
        SCOPED_TRACE(hwy::TargetName(targets & -targets));
        hwy::GetChosenTarget().Update(targets);
        expect_literal_pictures();
    }
    hwy::GetChosenTarget().Update(available);
#else
    expect_literal_pictures();
#endif
}

TEST(FastPaths, ChecksumAsByTheTable) {
    std::mt19937 random(1);
    for (uint64_t length = 0; length < 1'000; ++length) {
        for (const size_t offset : {0u, 1u, 7u, 15u}) {
            std::vector<unsigned char> bytes(offset + length);
            for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
            ASSERT_EQ(Crc32(bytes.data() + offset, length),
                      crc32_literally(bytes.data() + offset, length));
        }
    }
}

TEST(FastPaths, NothingIsAllocatedForAFrame) {
    const test::LastThreadsEnd last_threads_end;
    test::RawCompanion companion;
    const auto communicator = std::make_shared<VeltraneCommunicator>("11111", "fw1.1");
    std::atomic<int> messages{0};
    communicator->SetMessageHandler([&](uint16_t, const test::Bytes&) { ++messages; });
    const auto controller = std::make_shared<NetworkController>(communicator);
    communicator->SetController(controller);
    test::Bytes request = test::frame(ConnectRequest);
    const test::Bytes button = test::frame(ButtonMessage);  // only the link's comes through
    request.insert(request.end(), button.begin(), button.end());
    const test::Socket link = companion.link(request, [&] { return messages > 0; });
    const test::Bytes alive = test::frame(ControlMessage);
    const test::Chatter chatter(link, alive);

    std::mt19937 random(1);
    const Words pixels = picture(random, 10'000, 300);
    communicator->OnDataReceived(alive.data(), alive.size(), {}, true);
    const uint64_t before = allocations;
    ASSERT_GT(before, 0u);  // they are counted
    for (int i = 0; i < 10; ++i) {
        communicator->SendImage(pixels.data(), 100, 100);
        communicator->SendImage(nullptr, 0, 0);
        communicator->OnDataReceived(alive.data(), alive.size(), {}, true);
    }
    EXPECT_EQ(allocations - before, 0u);
    // They did go out.
    const test::Bytes image = link.read_frame();
    EXPECT_EQ(test::type_of(image), ImageMessage);
    for (int i = 1; i < 20; ++i) EXPECT_EQ(link.read_frame(), image);
}

}  // namespace
