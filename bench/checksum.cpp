#include <benchmark/benchmark.h>
#include <zlib.h>

#include "bench/measures.h"
#include "reference/crc32.h"
#include "wire/crc32.h"

namespace guilink {

void measure_checksum(const std::vector<BenchPicture>& pictures) {
    const BenchPicture& noise = pictures.at(5);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(noise.pixels.data());
    for (const size_t length :
         {size_t{16}, size_t{256}, size_t{4096}, size_t{131072}, size_t{1048576}}) {
        const auto add = [&](const char* name, auto way) {
            const std::string title = "checksum/" + std::to_string(length) + "/" + name;
            benchmark::RegisterBenchmark(title.c_str(), [=](benchmark::State& state) {
                for ([[maybe_unused]] auto round : state) {
                    benchmark::DoNotOptimize(way(bytes, length));
                }
                state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(length));
            });
        };
        add("crc32", Crc32);
        add("table", crc32_literally);
        add("zlib", [](const unsigned char* data, uint64_t size) {
            return crc32(0, data, static_cast<uInt>(size));
        });
    }
}

}  // namespace guilink
