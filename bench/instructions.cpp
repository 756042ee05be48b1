// guilink-instructions: for each picture, prints its name, and runs each measured function once to
// warm up and once between two marks, calls of a system call that does not exist.
// bench/count_plugin.cpp counts the instructions between the marks.
#include <unistd.h>

#include <iostream>

#include "bench/mark.h"
#include "bench/pictures.h"
#include "link/read_frame.h"
#include "protocol/image.h"
#include "reference/encoder.h"
#include "wire/crc32.h"

namespace {

using namespace guilink;

template <typename Code>
void count(Code code) {
    code();
    syscall(MARK);
    code();
    syscall(MARK);
}

}  // namespace

int main() {
    std::vector<uint16_t> words(0x400000);  // enough for any picture without reallocating
    for (const BenchPicture& picture : draw_pictures()) {
        std::cout << picture.name << '\n';
        const uint16_t* const pixels = picture.pixels.data();
        std::vector<unsigned char> copy(picture.size());
        uint64_t length = 0;
        volatile uint32_t checksum = 0;
        count([&] { encode_literally(pixels, WIDTH, HEIGHT, words); });
        count([&] { length = EncodeImage(pixels, WIDTH, HEIGHT, words); });
        count([&] {
            checksum = Crc32(reinterpret_cast<const unsigned char*>(words.data()), length);
        });
        count([&] {
            CopyWide(copy.data(), reinterpret_cast<const unsigned char*>(pixels), picture.size());
        });
    }
}
