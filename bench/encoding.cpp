#include <benchmark/benchmark.h>
#include <hwy/targets.h>
#include <lz4.h>
#include <unistd.h>

#include <cstring>
#include <numeric>

#include "bench/measures.h"
#include "link/read_frame.h"
#include "protocol/image.h"
#include "reference/encoder.h"

namespace guilink {

namespace {

using Words = std::vector<uint16_t>;

constexpr size_t ROOM = 0x400000;  // words; enough for any picture without reallocating

std::string title(const BenchPicture& picture, const std::string& name) {
    return picture.name + "/" + std::to_string(picture.width) + "x" +
           std::to_string(picture.height) + "/" + name;
}

// Measures code(pixels), with the pixels in the caches.
template <class Code>
void add(const BenchPicture& picture, const std::string& name, Code code) {
    benchmark::RegisterBenchmark(
        title(picture, name).c_str(), [&picture, code](benchmark::State& state) {
            uint64_t result = 0;
            for ([[maybe_unused]] auto round : state) {
                benchmark::DoNotOptimize(result = code(picture.pixels));
                benchmark::ClobberMemory();
            }
            state.counters["result"] = static_cast<double>(result);
            state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(picture.size()));
        });
}

// Measures code(pixels) with cold caches: each call reads another copy of the pixels, of which
// there are three times as many as the last-level cache holds.
template <class Code>
void add_cold(const BenchPicture& picture, const std::string& name, Code code) {
    const auto cache = static_cast<size_t>(std::max(sysconf(_SC_LEVEL3_CACHE_SIZE), 8L << 20));
    benchmark::RegisterBenchmark(
        title(picture, name).c_str(), [=, &picture](benchmark::State& state) {
            const std::vector<Words> copies(3 * cache / picture.size() + 1, picture.pixels);
            size_t next = 0;
            for ([[maybe_unused]] auto round : state) {
                benchmark::DoNotOptimize(code(copies[next++ % copies.size()]));
                benchmark::ClobberMemory();
            }
        });
}

}  // namespace

void measure_encoding(const std::vector<BenchPicture>& pictures) {
    static Words words(ROOM);
    for (const BenchPicture& picture : pictures) {
        const auto encode = [&picture](const Words& pixels) {
            return EncodeImage(pixels.data(), picture.width, picture.height, words);
        };
        const auto encode_literal = [&picture](const Words& pixels) {
            return encode_literally(pixels.data(), picture.width, picture.height, words);
        };
        const auto copy = [&picture](const Words& pixels) {
            std::memcpy(words.data(), pixels.data(), picture.size());
            return uint64_t{words[0]};
        };
        const auto copy_wide = [&picture](const Words& pixels) {
            CopyWide(reinterpret_cast<unsigned char*>(words.data()),
                     reinterpret_cast<const unsigned char*>(pixels.data()), picture.size());
            return uint64_t{words[0]};
        };
        const auto read = [](const Words& pixels) {
            return std::accumulate(pixels.begin(), pixels.end(), uint16_t{0}, std::bit_xor<>());
        };
        const auto compress = [&picture](const Words& pixels) {
            return static_cast<uint64_t>(LZ4_compress_fast(
                reinterpret_cast<const char*>(pixels.data()), reinterpret_cast<char*>(words.data()),
                static_cast<int>(picture.size()), ROOM * 2, 1));
        };
        add(picture, "encode", encode);
#if defined(__x86_64__)
        // Encodes as on a processor without AVX-512.
        add(picture, "encode-avx2",
            [encode, &chosen = hwy::GetChosenTarget()](const Words& pixels) {
                const int64_t all = hwy::SupportedTargets();
                chosen.Update(all & ~(HWY_AVX2 - 1));
                const uint64_t length = encode(pixels);
                chosen.Update(all);
                return length;
            });
#endif
        add(picture, "literal", encode_literal);
        add(picture, "lz4", compress);
        add(picture, "memcpy", copy);
        add(picture, "wide", copy_wide);
        add(picture, "read", read);
        if (picture.name == "menu" || picture.name == "text") {
            add_cold(picture, "encode-cold", encode);
            add_cold(picture, "memcpy-cold", copy);
            add_cold(picture, "wide-cold", copy_wide);
        }
    }
}

}  // namespace guilink
