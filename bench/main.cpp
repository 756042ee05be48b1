// guilink-bench: measures the encoder and the checksum, and beside them, in the same run, what they
// are compared with. A benchmark's name is SUBJECT/VARIANT, such as menu/encode.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstring>

#include "bench/memory.h"
#include "bench/pictures.h"
#include "link/read_frame.h"
#include "protocol/image.h"
#include "reference/encoder.h"
#include "wire/crc32.h"

namespace {

using namespace guilink;

template <class Code>
void add(const std::string& name, size_t size, Code code) {
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
        for ([[maybe_unused]] auto round : state) {
            benchmark::DoNotOptimize(code());
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
    });
}

void measure_picture(const BenchPicture& picture) {
    static std::vector<uint16_t> words(0x400000);  // enough for any picture without reallocating
    static auto* const bytes = reinterpret_cast<unsigned char*>(words.data());
    const uint16_t* const pixels = picture.pixels.data();
    const size_t size = picture.size();

    add(picture.name + "/memcpy", size, [=] { return std::memcpy(bytes, pixels, size); });
    add(picture.name + "/wide", size, [=] {
        CopyWide(bytes, reinterpret_cast<const unsigned char*>(pixels), size);
        return bytes;
    });
    add(picture.name + "/encode", size, [=] { return EncodeImage(pixels, WIDTH, HEIGHT, words); });
    add(picture.name + "/literal", size,
        [=] { return encode_literally(pixels, WIDTH, HEIGHT, words); });
}

void measure_checksum(const BenchPicture& noise) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(noise.pixels.data());
    for (const size_t size : {16, 256, 4096, 1048576}) {
        const std::string subject = "checksum/" + std::to_string(size);
        add(subject + "/crc32", size, [=] { return Crc32(bytes, size); });
        add(subject + "/zlib", size, [=] { return crc32(0, bytes, static_cast<uInt>(size)); });
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--memory") return measure_memory(argv[2]);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;

    const std::vector<BenchPicture> pictures = draw_pictures();
    for (const BenchPicture& picture : pictures) measure_picture(picture);
    measure_checksum(pictures.back());
    benchmark::RunSpecifiedBenchmarks();
}
