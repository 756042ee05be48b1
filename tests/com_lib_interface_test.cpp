#include "link/com_lib_interface.h"

#include <gtest/gtest.h>

#include <optional>

#include "protocol/image.h"
#include "tests/support/raw_companion.h"

namespace {

using namespace guilink::test;

constexpr uint64_t LARGE = 2'457'600;  // 1280 x 960
constexpr uint64_t SMALL = 1'572'864;  // 1024 x 768

// A frame of one colour, in a buffer of exactly as many bytes as are read.
std::shared_ptr<unsigned char> colour(uint16_t value, uint64_t size) {
    std::shared_ptr<unsigned char> buffer(new unsigned char[size],
                                          std::default_delete<unsigned char[]>());
    for (uint64_t i = 0; i < size; i += 2) std::memcpy(buffer.get() + i, &value, sizeof value);
    return buffer;
}

struct Image {
    uint16_t width;
    uint16_t height;
    uint16_t first_pixel;
};

// A facade whose link is made.
class LinkedFacade : public testing::Test {
  protected:
    // The first image that arrives proves that the connection is the link.
    void SetUp() override {
        m_link = m_companion.link(frame(ConnectRequest) + frame(ControlMessage), [this] {
            m_facade->push_frame(colour(0x8001, SMALL), SMALL);
            return false;
        });
        EXPECT_EQ(next_image().first_pixel, 0x8001);
    }

    void keep_alive() { m_link.write(frame(ControlMessage)); }

    Image next_image() {
        const Bytes message = m_link.read_frame();
        EXPECT_EQ(type_of(message), ImageMessage);
        const Bytes payload = payload_of(message);
        uint16_t words[4];
        std::memcpy(words, payload.data(), sizeof words);
        return {words[0], words[1], words[3]};
    }

    // The next image that is not the one before sent again.
    Image next_image_other_than(uint16_t pixel) {
        while (true) {
            const Image image = next_image();
            if (image.first_pixel != pixel) return image;
            keep_alive();
        }
    }

    LastThreadsEnd m_last_threads_end;
    RawCompanion m_companion;
    std::optional<ComLibInterface> m_facade{std::in_place, "A1B2C", "fw1.1"};
    Socket m_link;
};

TEST_F(LinkedFacade, SizeDecidesTheResolution) {
    keep_alive();
    m_facade->push_frame(colour(0x9002, LARGE), LARGE);
    Image image = next_image_other_than(0x8001);
    EXPECT_EQ(image.width, 1280);
    EXPECT_EQ(image.height, 960);

    keep_alive();
    m_facade->push_frame(colour(0x9003, SMALL), 1'000'000);  // read whole all the same
    image = next_image_other_than(0x9002);
    EXPECT_EQ(image.width, 1024);
    EXPECT_EQ(image.height, 768);
    EXPECT_EQ(image.first_pixel, 0x9003);
}

TEST_F(LinkedFacade, FrameArrivesPixelForPixel) {
    const auto buffer = colour(0, LARGE);
    std::vector<uint16_t> pixels(LARGE / 2);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint16_t>(i / 7 * 31);
    std::memcpy(buffer.get(), pixels.data(), LARGE);
    std::vector<uint16_t> words(0x100000);
    words.resize(EncodeImage(pixels.data(), 1280, 960, words) / 2);

    keep_alive();
    m_facade->push_frame(buffer, LARGE);
    Bytes payload;
    do {
        payload = payload_of(m_link.read_frame());
    } while (payload.size() < 1000);
    std::vector<uint16_t> received(payload.size() / 2);
    std::memcpy(received.data(), payload.data(), payload.size());
    EXPECT_EQ(received, words);
}

TEST_F(LinkedFacade, SilentCompanionGetsTheLastImageAgainAndNoNewOne) {
    std::this_thread::sleep_for(2100ms);  // since the last keep-alive
    m_link.write(frame(ButtonMessage));   // the connection lives, but this is no keep-alive
    m_facade->push_frame(colour(0x9004, SMALL), SMALL);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(next_image().first_pixel, 0x8001);

    keep_alive();
    // Pushed again until the keep-alive has been seen.
    while (!m_link.readable(50ms)) {
    }
    Image image = {};
    for (int i = 0; i < 100 && image.first_pixel != 0x9005; ++i) {
        m_facade->push_frame(colour(0x9005, SMALL), SMALL);
        image = next_image();
    }
    EXPECT_EQ(image.first_pixel, 0x9005);
}

// Far more than all buffers on the way can take, while the companion does not read.
TEST_F(LinkedFacade, NewestFrameReplacesTheUnsentOne) {
    const auto striped = colour(0, SMALL);
    for (uint64_t i = 0; i < SMALL; i += 2) {
        const auto value = static_cast<uint16_t>(0x8000 + i / 8 % 2);
        std::memcpy(striped.get() + i, &value, sizeof value);
    }
    constexpr uint16_t FIRST = 0x9001;
    constexpr uint16_t LAST = FIRST + 29;
    keep_alive();
    for (uint16_t pixel = FIRST; pixel <= LAST; ++pixel) {
        std::memcpy(striped.get(), &pixel, sizeof pixel);
        m_facade->push_frame(striped, SMALL);
    }

    int arrived = 0;
    for (uint16_t pixel = 0x8001, before; pixel != LAST; ++arrived) {
        before = pixel;
        pixel = next_image().first_pixel;
        EXPECT_GE(pixel, before);
    }
    EXPECT_LT(arrived, 30);
}

TEST_F(LinkedFacade, MessagesAreHandled) {
    const Socket control_service(SOCK_DGRAM, "127.0.0.1", 3426);
    testing::internal::CaptureStdout();
    m_link.write(frame(ButtonMessage));  // no button
    m_link.write(frame(ButtonMessage, {5, 10}));
    m_link.write(frame(DataMessage, bytes("hello")));
    m_link.write(frame(ControlMessage, bytes("x")));
    m_link.write(frame(DataMessage));
    m_link.write(frame(ButtonMessage, {15}));
    EXPECT_EQ(control_service.read_some(), bytes(R"([{"msg_id":105,"param":"On"}])"));
    EXPECT_EQ(control_service.read_some(), bytes(R"([{"msg_id":115,"param":"On"}])"));
    m_facade.reset();  // the last line is written once the facade is gone
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "BUTTON 5\nUSER hello\nUSER \nBUTTON 15\n");
}

TEST_F(LinkedFacade, EndsWhileMessagesArrive) {
    Bytes burst;
    for (int i = 0; i < 1000; ++i) {
        for (const uint16_t type : {ControlMessage, IdentityRequest}) {
            const Bytes one = frame(type);
            burst.insert(burst.end(), one.begin(), one.end());
        }
    }
    std::thread sender([&] {
        try {
            while (true) m_link.write(burst);
        } catch (const std::runtime_error&) {  // the facade is gone, and its connection with it
        }
    });
    std::thread reader([&] {
        try {
            while (!m_link.read_some().empty()) {
            }
        } catch (const std::runtime_error&) {
        }
    });
    std::this_thread::sleep_for(100ms);
    m_facade.reset();
    sender.join();
    reader.join();
}

}  // namespace
