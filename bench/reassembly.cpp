#include <benchmark/benchmark.h>

#include <cstring>
#include <mutex>

#include "bench/measures.h"
#include "protocol/veltrane_communicator.h"
#include "wire/crc32.h"

namespace guilink {

namespace {

// Returns the largest chunk that can arrive (1 MiB), full of the smallest frames: keep-alives.
std::vector<unsigned char> many_frames() {
    const std::vector<unsigned char> one = BuildFrame(ControlMessage, nullptr, 0);
    std::vector<unsigned char> all;
    while (all.size() + one.size() <= MAX_SIZE) all.insert(all.end(), one.begin(), one.end());
    return all;
}

void reassemble(benchmark::State& state) {
    const auto bytes = many_frames();
    uint64_t messages = 0;
    VeltraneCommunicator communicator("11111", "fw1.1");
    communicator.SetMessageHandler(
        [&](uint16_t, const std::vector<unsigned char>&) { ++messages; });
    for ([[maybe_unused]] auto round : state) {
        communicator.OnDataReceived(bytes.data(), bytes.size(), {}, true);
    }
    state.counters["messages"] =
        benchmark::Counter(static_cast<double>(messages), benchmark::Counter::kAvgIterations);
}

// The baseline: makes the same checks and handler calls as the communicator, but knows the offsets
// of the frames. LOCKED adds a mutex around each handler call.
template <bool LOCKED>
void bare_loop(benchmark::State& state) {
    std::mutex mutex;
    const auto bytes = many_frames();
    uint64_t messages = 0;
    const VeltraneCommunicator::MessageHandler handler =
        [&](uint16_t, const std::vector<unsigned char>&) { ++messages; };
    for ([[maybe_unused]] auto round : state) {
        for (size_t i = 0; i + HEADER_SIZE <= bytes.size(); i += HEADER_SIZE) {
            const unsigned char* const frame = &bytes[i];
            const FrameHeader header = ReadHeader(frame);
            if (std::memcmp(frame, STARTING_SEQUENCE.data(), STARTING_SEQUENCE.size()) == 0 &&
                header.length <= MAX_SIZE &&
                Crc32(frame + HEADER_SIZE, header.length) == header.checksum) {
                std::unique_lock lock(mutex, std::defer_lock);
                if (LOCKED) lock.lock();
                handler(header.type, {frame + HEADER_SIZE, frame + HEADER_SIZE + header.length});
            }
        }
    }
    state.counters["messages"] =
        benchmark::Counter(static_cast<double>(messages), benchmark::Counter::kAvgIterations);
}

}  // namespace

void measure_reassembly() {
    benchmark::RegisterBenchmark("reassembly/communicator", reassemble);
    benchmark::RegisterBenchmark("reassembly/bare-loop", bare_loop<false>);
    benchmark::RegisterBenchmark("reassembly/locked-loop", bare_loop<true>);
}

}  // namespace guilink
