// Tests the encoder with a few images by hand, and exhaustively: With each set of vector
// instructions, it must write the same words as the reference encoder. The C++ decoder and the
// Python decoder must decode these words to the expected pixels.
#include <gtest/gtest.h>
#if defined(__x86_64__)
#include <hwy/targets.h>
#endif

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <random>
#include <string_view>
#include <vector>

#include "guilink/companion.h"
#include "protocol/image.h"
#include "reference/encoder.h"

namespace {

using namespace guilink;
using Words = std::vector<uint16_t>;

constexpr uint16_t KINDS[] = {0, 0x0FFF, 0x1000, 0xFFFF};  // pixels; transparent up to 0x0FFF

#if defined(NDEBUG)
constexpr size_t EXHAUSTIVE = 12;  // pixels; the test tries all 22 million images up to this size
constexpr size_t STEP = 1;
#else
constexpr size_t EXHAUSTIVE = 6;  // pixels; with sanitizers, an image takes up to 100 times longer
constexpr size_t STEP = 7;        // the tests that use STEP try only every seventh image
#endif
constexpr size_t EXHAUSTIVE_IN_PYTHON = 8;  // pixels; the Python decoder gets no larger images

constexpr size_t AT = 21;  // in a frame, the number of 16-bit words before the image

// Returns the instruction sets that this processor and run_ends.cpp support. An element may have
// several bits set; its lowest set bit denotes the instruction set.
std::vector<int64_t> instruction_sets() {
#if defined(__x86_64__)
    std::vector<int64_t> sets;
    constexpr int64_t LEFT_OUT = HWY_SSSE3 | HWY_AVX3 | HWY_EMU128;
    for (int64_t set = hwy::SupportedTargets() & ~LEFT_OUT; set != 0; set &= set - 1) {
        sets.push_back(set);
    }
    return sets;
#else
    return {0};
#endif
}

void use([[maybe_unused]] int64_t set) {
#if defined(__x86_64__)
    hwy::GetChosenTarget().Update(set);
#endif
}

TEST(EncodeImage, WritesExactlyTheseWords) {
    const Words flat(70'000, 0x8001);
    const struct {
        uint16_t width;
        uint16_t height;
        Words pixels;
        Words expected;
    } table[] = {
        {0, 7, {}, {0, 7}},
        {1, 1, {0x1234}, {1, 1}},
        // The last pixel is dropped, whether it continues a run or begins a new one.
        {2, 1, {0x1234, 0x1234}, {2, 1, 1, 0x1234}},
        {1, 3, {0xF00F, 0xF00F, 0x1234}, {1, 3, 2, 0xF00F}},
        // Transparent pixels are sent as 0, except for the first pixel, which is sent unchanged. So
        // a first pixel that is transparent but not 0 is a run of its own.
        {3, 1, {0x0ABC, 0x0005, 0x0007}, {3, 1, 1, 0x0ABC, 1, 0}},
        {3, 1, {5, 5, 5}, {3, 1, 1, 5, 1, 0}},
        {4, 1, {0, 5, 7, 9}, {4, 1, 3, 0}},
        // 0x0FFF is the largest transparent pixel, so it is sent as 0. 0x1000 is sent unchanged.
        {5, 1, {0xFFFF, 0x0FFF, 0, 0x1000, 0}, {5, 1, 1, 0xFFFF, 2, 0, 1, 0x1000}},
        // A run of the maximum length, and a longer one, which is split.
        {32768, 2, flat, {32768, 2, 65535, 0x8001}},
        {1000, 70, flat, {1000, 70, 65535, 0x8001, 4464, 0x8001}},
    };
    for (const auto& row : table) {
        Words words(2);  // too small, so that EncodeImage must enlarge it
        const uint64_t length = EncodeImage(row.pixels.data(), row.width, row.height, words);
        ASSERT_LE(length, words.size() * 2);
        words.resize(length / 2);
        EXPECT_EQ(words, row.expected);
    }
}

class Encoder : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(m_python, nullptr);
        // If the Python decoder ends early, SIGPIPE must not end this test, because TearDown
        // reports the decoder's exit status.
        std::signal(SIGPIPE, SIG_IGN);
    }
    void TearDown() override {
        ASSERT_EQ(pclose(m_python), 0);
        use(m_sets.front());
    }

    // Encodes the pixels with each instruction set, and decodes the result. Returns the name of the
    // check that fails, or "".
    std::string_view wrong(const Words& pixels, uint16_t width, uint16_t height, bool in_python) {
        m_expected.assign(2, 0);
        const uint64_t bytes = encode_literally(pixels.data(), width, height, m_expected);
        size_t grown = AT + 2;
        while (grown < AT + bytes / 2) grown *= 2;
        for (const int64_t set : m_sets) {
            use(set);
            m_words.assign(AT + 2, 0xEEEE);
            if (EncodeImage(pixels.data(), width, height, m_words, AT) != bytes) return "length";
            if (m_words.size() != grown) return "growth";
            if (m_words[AT - 1] != 0xEEEE) return "begin";
            if (std::memcmp(&m_words[AT], m_expected.data(), bytes) != 0) return "words";
        }

        const auto* const payload = reinterpret_cast<const unsigned char*>(m_expected.data());
        decode_image({payload, payload + bytes}, m_picture);
        if (m_picture.width != width || m_picture.height != height) return "size";
        m_shown = pixels;
        for (size_t i = 1; i < m_shown.size(); ++i) {
            if (m_shown[i] <= 0x0FFF) m_shown[i] = 0;
        }
        m_shown.back() = m_shown.size() > 1 ? m_shown[m_shown.size() - 2] : uint16_t{0};
        if (m_picture.pixels != m_shown) return "decoded pixels";
        if (in_python) {
            const uint32_t sizes[] = {static_cast<uint32_t>(bytes), uint32_t{width} * height};
            std::fwrite(sizes, sizeof sizes, 1, m_python);
            std::fwrite(payload, bytes, 1, m_python);
            std::fwrite(m_shown.data(), 2, m_shown.size(), m_python);
        }
        return "";
    }

  private:
    const std::vector<int64_t> m_sets = instruction_sets();
    std::FILE* const m_python = popen(SECOND_DECODER, "w");
    Words m_expected;
    Words m_words;
    Words m_shown;
    Picture m_picture;
};

class EncoderFrom : public Encoder, public ::testing::WithParamInterface<uint16_t> {};
INSTANTIATE_TEST_SUITE_P(Each, EncoderFrom, ::testing::ValuesIn(KINDS));

TEST_P(EncoderFrom, EveryImageOfAFewPixels) {
    for (size_t count = 1; count <= EXHAUSTIVE; ++count) {
        const bool in_python = count <= EXHAUSTIVE_IN_PYTHON;
        const auto height = static_cast<uint16_t>(in_python && count % 2 == 0 ? 2 : 1);
        const auto width = static_cast<uint16_t>(count / height);
        Words pixels(count, GetParam());
        for (size_t digits = 0; digits >> 2 * (count - 1) == 0; ++digits) {
            for (size_t i = 1; i < count; ++i) pixels[i] = KINDS[digits >> 2 * (i - 1) & 3];
            ASSERT_EQ(wrong(pixels, width, height, in_python), "") << digits;
        }
    }
}

// The encoder handles groups of 8 pixels. Its result for a group depends only on the group and the
// pixel after it. So this test tries all combinations of nine neighbouring pixels, at each place
// in the encoder's block of 32 pixels.
TEST_F(Encoder, EveryNeighbourhoodAtEveryPlace) {
    constexpr size_t COUNT = size_t{1} << 18;
    Words pixels(9, KINDS[0]);
    std::vector<bool> seen(COUNT);
    size_t window = 0;
    // Build a de Bruijn sequence. Each step appends the largest digit that gives a new window.
    while (!seen[window]) {
        seen[window] = true;
        size_t digit = 3;
        const auto next = [&] { return (window << 2 | digit) % COUNT; };
        while (digit > 0 && seen[next()]) --digit;
        pixels.push_back(KINDS[digit]);
        window = next();
    }
    ASSERT_EQ(pixels.size(), COUNT + 9);
    pixels.resize(size_t{513} * 512);
    for (size_t place = 0; place < 32; place += STEP) {
        ASSERT_EQ(wrong(pixels, 513, 512, false), "") << place;
        std::rotate(pixels.begin(), pixels.end() - STEP, pixels.end());
    }
}

// The lengths of these runs differ by at most two pixels from one of four limits: the encoder's
// block, its chunk, the longest run and twice the longest run. Up to two pixels precede and follow
// each run.
TEST_F(Encoder, EveryRunAroundTheLimits) {
    for (const size_t limit : {32u, 4096u, 65535u, 131070u}) {
        for (size_t i = 0; i < size_t{5} * 3 * 3 * 2; i += STEP) {
            Words pixels(i / 5 % 3, 0xFFFF);
            pixels.resize(pixels.size() + limit - 2 + i % 5, KINDS[1 + i / 45]);
            pixels.resize(pixels.size() + i / 15 % 3, 0);
            pixels.shrink_to_fit();
            size_t height = 1;
            while (pixels.size() % height != 0 || pixels.size() / height > 65535) ++height;
            // If no 16-bit width and height give this number of pixels, skip it.
            if (height > 65535) continue;
            const auto width = static_cast<uint16_t>(pixels.size() / height);
            const auto rows = static_cast<uint16_t>(height);
            ASSERT_EQ(wrong(pixels, width, rows, true), "") << limit << "," << i;
        }
    }
}

// Tries random runs. Each run repeats a pixel that has a single bit set, or an element of KINDS.
// The largest images need more than two of the encoder's chunks of 4,096 pixels. Most sizes are no
// multiple of 32, so the last block is incomplete.
TEST_F(Encoder, RandomRuns) {
    std::mt19937 random(1);
    for (size_t count = 1; count < 9'000; count += 1 + count / 100) {
        for (const unsigned longest : {2u, 40u, 300u, 5'000u}) {
            Words pixels;
            pixels.reserve(count);
            while (pixels.size() < count) {
                const size_t end = pixels.size() + 1 + random() % longest;
                const auto bit = static_cast<uint16_t>(1u << random() % 16);
                pixels.resize(std::min(end, count), random() % 2 == 0 ? bit : KINDS[random() % 4]);
            }
            ASSERT_EQ(wrong(pixels, static_cast<uint16_t>(count), 1, false), "") << count;
        }
    }
}

}  // namespace
