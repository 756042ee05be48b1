// Tests the simulated core: its memory, its buttons and its GUI.
#include <gtest/gtest.h>

#include <set>

#include "devkit/core/control_service.h"
#include "devkit/core/frame_memory.h"
#include "devkit/core/scenes.h"
#include "protocol/image.h"
#include "wire/frame.h"

namespace guilink {
namespace {

TEST(FrameMemory, NoAddressIsEverUsedTwice) {
    std::set<uint64_t> pages;
    for (const uint32_t size : {2'457'600u, 1'572'864u, 2'457'600u}) {
        const FrameMemory memory(size);
        for (size_t buffer = 0; buffer < FrameMemory::BUFFERS; ++buffer) {
            EXPECT_EQ(memory.address(buffer) % 4096, 0u);
            EXPECT_EQ(memory.pixels(buffer).size_bytes(), size);
            memory.pixels(buffer).back() = 1;
            // Check one page beyond the frame, because the service maps it with the frame.
            for (uint64_t page = 0; page <= size; page += 4096) {
                EXPECT_TRUE(pages.insert(memory.address(buffer) + page).second);
            }
        }
    }
}

TEST(FrameMemory, StaysInItsRegion) {
    constexpr uint32_t SIZE = 1'572'864;
    constexpr uint64_t LENGTH = FrameMemory::BUFFERS * (SIZE + 4096);
    const Region region = {0x20000001, 0x20001000 + 2 * LENGTH};
    uint64_t end = 0x20001000;  // the region's first page boundary
    for (int start = 0; start < 2; ++start, end += LENGTH)
        EXPECT_EQ(FrameMemory(SIZE, region).address(0), end);
    EXPECT_EQ(end, region.end);
    EXPECT_THROW(FrameMemory(SIZE, region), std::runtime_error);
    EXPECT_EQ(FrameMemory(SIZE).address(0), region.end);
}

TEST(FrameMemory, OnlyRegionsBelow4GiBAreAccepted) {
    const auto region = parse_region("0xfffff000:4096");
    ASSERT_TRUE(region);
    EXPECT_EQ(region->begin, 0xfffff000u);
    EXPECT_EQ(region->end, 0x100000000u);
    for (const char* const junk : {"", "1", "1:", ":1", "1:0", "1:1x", "x:1", "0xfffff000:4097",
                                   "0x100000000:1", "-1:1", "1:-1"})
        EXPECT_FALSE(parse_region(junk)) << junk;
}

TEST(ControlService, OnlyCommandsAreObeyed) {
    EXPECT_EQ(parse_command(R"([{"msg_id":100,"param":"On"}])"), Button::up);
    EXPECT_EQ(parse_command(R"([{"msg_id":115,"param":"On"}])"), Button::info);
    for (const char* const junk :
         {"", "[]", "[{}]", "junk", R"([{"msg_id":99,"param":"On"}])",
          R"([{"msg_id":116,"param":"On"}])", R"([{"msg_id":100,"param":"Off"}])",
          R"([{"msg_id":"100","param":"On"}])", R"([{"msg_id":-9223372036854775808,"param":"On"}])",
          R"({"msg_id":100,"param":"On"})"}) {
        EXPECT_EQ(parse_command(junk), std::nullopt) << junk;
    }
}

constexpr Scene SCENES[] = {Scene::menu, Scene::overlay, Scene::gradient, Scene::noise,
                            Scene::sweep};

std::vector<uint16_t> drawn(const Gui& gui, Scene scene = Scene::menu, const Moment& moment = {}) {
    Canvas canvas(1024, 768);
    std::vector<uint16_t> pixels(size_t{1024} * 768);
    draw_scene(scene, gui, canvas, moment, pixels);
    return pixels;
}

TEST(Gui, EveryButtonCanBeSeen) {
    for (uint8_t button = 0; button < BUTTON_COUNT; ++button) {
        Gui gui("11111");
        const auto before = drawn(gui);
        EXPECT_EQ(before, drawn(gui));  // without a press, the picture stays the same
        gui.press(static_cast<Button>(button));
        EXPECT_NE(before, drawn(gui)) << int{button};
    }
}

TEST(Scenes, DifferAndMove) {
    const Gui gui("11111");
    std::set<std::vector<uint16_t>> seen;
    for (const Scene scene : SCENES) {
        EXPECT_TRUE(seen.insert(drawn(gui, scene)).second);
        EXPECT_TRUE(seen.insert(drawn(gui, scene, {64, 1, "12:00:00"})).second);
    }
}

// The service silently drops a picture whose encoding does not fit into a message.
TEST(Scenes, FitIntoAMessage) {
    const Gui gui("11111");
    for (const uint16_t width : {uint16_t{1280}, uint16_t{1024}}) {
        Canvas canvas(width, static_cast<uint16_t>(width * 3 / 4));
        std::vector<uint16_t> pixels(size_t{canvas.width()} * canvas.height());
        std::vector<uint16_t> words(2);
        for (const Scene scene : SCENES) {
            draw_scene(scene, gui, canvas, {}, pixels);
            EXPECT_LE(EncodeImage(pixels.data(), canvas.width(), canvas.height(), words), MAX_SIZE)
                << "width " << width << ", scene " << static_cast<int>(scene);
        }
    }
}

}  // namespace
}  // namespace guilink
