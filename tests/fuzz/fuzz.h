// Shared by all fuzz targets. A target defines seeds() and LLVMFuzzerTestOneInput, and aborts when
// a check fails.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/bytes.h"

namespace guilink::fuzz {

using namespace guilink::test;

std::vector<Bytes> seeds();

inline void require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "check failed: %s\n", what);
    std::abort();
}

// An input consists of pieces. Each begins with 4 bytes: one whose meaning the target defines, one
// for the number of repeats, and two for the length. The repeats let short inputs fill large
// buffers.
inline Bytes piece(unsigned char how, unsigned char repeats, const Bytes& data) {
    const auto length = static_cast<uint16_t>(data.size());
    return Bytes{how, repeats, static_cast<unsigned char>(length),
                 static_cast<unsigned char>(length >> 8)} +
           data;
}

template <typename Take>
void for_each_piece(const unsigned char* data, size_t size, const Take& take) {
    constexpr size_t HEAD = 4;
    while (size >= HEAD) {
        const unsigned char how = data[0];
        const int times = data[1] + 1;
        const size_t length = std::min(size_t{data[3]} << 8 | data[2], size - HEAD);
        take(how, times, Bytes(data + HEAD, data + HEAD + length));
        data += HEAD + length;
        size -= HEAD + length;
    }
}

}  // namespace guilink::fuzz

// Called before the first input: writes the seeds into the corpus folder, the last argument.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    int number = 0;
    for (const auto& seed : guilink::fuzz::seeds()) {
        const std::string directory = (*argv)[*argc - 1];
        std::ofstream(directory + "/seed-" + std::to_string(number++), std::ios::binary)
            .write(reinterpret_cast<const char*>(seed.data()),
                   static_cast<std::streamsize>(seed.size()));
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size);
