// Counts the allocations per frame.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "protocol/veltrane_communicator.h"
#include "tests/support/raw_companion.h"

namespace {

thread_local uint64_t allocations = 0;

}

// A sanitizer with its own operator new calls this hook.
extern "C" void __sanitizer_malloc_hook(const volatile void*, size_t);
extern "C" void __sanitizer_malloc_hook(const volatile void*, size_t) {
    ++allocations;
}

// Not inlined, because GCC would otherwise warn that new and free do not match.
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

TEST(Allocations, AreNotMadeForAFrame) {
    const test::LastThreadsEnd last_threads_end;
    test::RawCompanion companion;
    const auto communicator = std::make_shared<VeltraneCommunicator>("11111", "fw1.1");
    std::atomic<int> messages{0};
    communicator->SetMessageHandler([&](uint16_t, const test::Bytes&) { ++messages; });
    const auto controller = std::make_shared<NetworkController>(communicator);
    communicator->SetController(controller);
    test::Bytes request = test::frame(ConnectRequest);
    const test::Bytes button = test::frame(ButtonMessage);  // handled only if it comes on the link
    request.insert(request.end(), button.begin(), button.end());
    const test::Socket link = companion.link(request, [&] { return messages > 0; });
    const test::Bytes alive = test::frame(ControlMessage);
    const test::Chatter chatter(link, alive);

    std::vector<uint16_t> pixels(10'000, 0xFFFF);
    for (size_t i = 0; i < pixels.size(); i += 1 + i / 10) pixels[i] = 0xF00F;
    communicator->OnDataReceived(alive.data(), alive.size(), {}, true);
    const uint64_t before = allocations;
    ASSERT_GT(before, 0u);  // proves that allocations are counted
    for (int i = 0; i < 10; ++i) {
        communicator->SendImage(pixels.data(), 100, 100);
        communicator->SendImage(nullptr, 0, 0);
        communicator->OnDataReceived(alive.data(), alive.size(), {}, true);
    }
    EXPECT_EQ(allocations - before, 0u);
    // All images must arrive.
    const test::Bytes image = link.read_frame();
    EXPECT_EQ(test::type_of(image), ImageMessage);
    for (int i = 1; i < 20; ++i) EXPECT_EQ(link.read_frame(), image);
}

}  // namespace
