#include "link/com_lib_interface.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <optional>

#include "tests/support/raw_companion.h"

namespace {

using namespace guilink::test;

constexpr uint64_t LARGE = 2'457'600;  // bytes; 1280 x 960 pixels of 2 bytes
constexpr uint64_t SMALL = 1'572'864;  // bytes; 1024 x 768 pixels of 2 bytes

// Returns a frame of one colour, in a buffer of exactly `size` bytes.
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

class LinkedFacade : public testing::Test {
  protected:
    // Pushes frames until the companion receives an image. Only the link receives images.
    void SetUp() override {
        m_link = m_companion.link(frame(ConnectRequest) + frame(ControlMessage), [this] {
            m_facade->push_frame(colour(0x8001, SMALL), SMALL);
            return false;
        });
        keep_sending(ControlMessage);
        EXPECT_EQ(next_image().first_pixel, 0x8001);
    }

    void keep_sending(MessageType type) {
        m_chatter.reset();
        m_chatter.emplace(m_link, frame(type));
    }

    Image next_image() {
        const Bytes message = m_link.read_frame();
        EXPECT_EQ(type_of(message), ImageMessage);
        const Bytes payload = payload_of(message);
        uint16_t words[4];
        std::memcpy(words, payload.data(), sizeof words);
        return {words[0], words[1], words[3]};
    }

    // Skips images whose first pixel is `pixel`. Throws if no other image arrives.
    Image next_image_other_than(uint16_t pixel) {
        for (int i = 0; i < REPEATS; ++i) {
            const Image image = next_image();
            if (image.first_pixel != pixel) return image;
        }
        throw_missing_event("no new image");
    }

    static constexpr int REPEATS = 20;  // images that next_image_other_than skips before it throws

    LastThreadsEnd m_last_threads_end;
    RawCompanion m_companion;
    std::optional<ComLibInterface> m_facade{std::in_place, "A1B2C", "fw1.1"};
    Socket m_link;
    std::optional<Chatter> m_chatter;
};

TEST_F(LinkedFacade, SizeDecidesTheResolution) {
    m_facade->push_frame(colour(0x9002, LARGE), LARGE);
    Image image = next_image_other_than(0x8001);
    EXPECT_EQ(image.width, 1280);
    EXPECT_EQ(image.height, 960);

    // Every size below LARGE means a frame of 1024 x 768, so push_frame reads SMALL bytes.
    m_facade->push_frame(colour(0x9003, SMALL), 1'000'000);
    image = next_image_other_than(0x9002);
    EXPECT_EQ(image.width, 1024);
    EXPECT_EQ(image.height, 768);
    EXPECT_EQ(image.first_pixel, 0x9003);
}

TEST_F(LinkedFacade, SilentCompanionGetsTheLastImageAgainAndNoNewOne) {
    m_chatter.reset();
    m_link.write(frame(IdentityRequest));  // an answer proves that all keep-alives have arrived
    m_link.read_frame(IdentityMessage);
    keep_sending(ButtonMessage);          // keeps the connection open, but is not a keep-alive
    std::this_thread::sleep_for(2100ms);  // new images must end 2 s after the last keep-alive
    m_facade->push_frame(colour(0x9004, SMALL), SMALL);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(next_image().first_pixel, 0x8001);

    keep_sending(ControlMessage);
    Image image = {};
    for (int i = 0; i < 100 && image.first_pixel != 0x9005; ++i) {
        m_facade->push_frame(colour(0x9005, SMALL), SMALL);
        image = next_image();
    }
    EXPECT_EQ(image.first_pixel, 0x9005);
}

// The first frame is larger than the companion's TCP receive window. Until it is sent, each newer
// frame must replace the previous one, although the small frames would fit into the send buffer.
TEST_F(LinkedFacade, NewestFrameReplacesTheUnsentOnes) {
    const auto striped = colour(0, SMALL);
    for (uint64_t i = 0; i < SMALL; i += 2) {
        const auto value = static_cast<uint16_t>(0x9001 + i / 8 % 2);
        std::memcpy(striped.get() + i, &value, sizeof value);
    }
    const auto plain = colour(0x9011, SMALL);
    m_facade->push_frame(striped, SMALL);
    const auto sends_it = [&, available = 0]() mutable {
        ioctl(m_link.fd(), FIONREAD, &available);
        return available > 10'000;  // bytes; only the striped image is that large
    };
    EXPECT_TRUE(wait_until(sends_it));
    for (uint16_t pixel = 0x9011; pixel <= 0x9018; ++pixel) {
        std::memcpy(plain.get(), &pixel, sizeof pixel);
        m_facade->push_frame(plain, SMALL);
        std::this_thread::sleep_for(2ms);  // gives a faulty sender time to send this frame
    }
    EXPECT_EQ(next_image_other_than(0x8001).first_pixel, 0x9001);
    EXPECT_EQ(next_image_other_than(0x9001).first_pixel, 0x9018);
}

TEST_F(LinkedFacade, MessagesAreHandled) {
    const Socket control_service(SOCK_DGRAM, "127.0.0.1", 3426);
    testing::internal::CaptureStdout();
    m_link.write(frame(ButtonMessage));  // must be ignored, because it contains no button
    m_link.write(frame(ButtonMessage, {5, 10}));
    m_link.write(frame(DataMessage, bytes("hello")));
    m_link.write(frame(ControlMessage, bytes("x")));
    m_link.write(frame(DataMessage));
    m_link.write(frame(ButtonMessage, {15}));
    EXPECT_EQ(control_service.read_some(), bytes(R"([{"msg_id":105,"param":"On"}])"));
    EXPECT_EQ(control_service.read_some(), bytes(R"([{"msg_id":115,"param":"On"}])"));
    m_facade.reset();  // returns when all lines are written
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "BUTTON 5\nUSER hello\nUSER \nBUTTON 15\n");
}

TEST_F(LinkedFacade, EndsWhileMessagesArrive) {
    m_chatter.reset();
    const Bytes burst = repeated(frame(ControlMessage) + frame(IdentityRequest), 1000);
    const Chatter sender(m_link, burst);
    std::atomic<size_t> answered{0};
    std::thread reader([&] {
        try {
            for (size_t size; (size = m_link.read_some().size()) > 0;) answered += size;
        } catch (const std::runtime_error&) {  // m_facade.reset() has closed the connection
        }
    });
    EXPECT_TRUE(wait_until([&] { return answered > 100'000; }));
    m_facade.reset();
    reader.join();
}

}  // namespace
