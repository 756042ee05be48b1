// guilink-instructions: runs each measured function once to warm up and once between two marks,
// calls of a system call that does not exist, and prints NAME<tab>PIXELS. bench/count_plugin.cpp
// counts the instructions between the marks.
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "bench/mark.h"
#include "bench/pictures.h"
#include "link/read_frame.h"
#include "protocol/image.h"
#include "reference/crc32.h"
#include "reference/encoder.h"
#include "wire/crc32.h"

namespace {

using namespace guilink;
using Words = std::vector<uint16_t>;

constexpr size_t ROOM = 0x400000;  // words; enough for any picture without reallocating

template <typename Code>
void count(const std::string& name, size_t pixels, Code code) {
    code();
    syscall(MARK);
    code();
    syscall(MARK);
    std::cout << name << '\t' << pixels << '\n';
}

void known_loop() {
#if defined(__aarch64__)
    static_assert(KNOWN_LENGTH % 2 == 0);
    long rounds = KNOWN_LENGTH / 2;
    asm volatile("1: subs %0, %0, #1\n b.ne 1b" : "+r"(rounds) : : "cc");
#endif
}

void count_picture(const BenchPicture& picture, const Words& pixels) {
    static Words words(ROOM);
    static std::vector<unsigned char> copy(picture.size());
    const std::string subject = picture.name + "/" + std::to_string(picture.width) + "x" +
                                std::to_string(picture.height) + "/";
    const auto* const bytes = reinterpret_cast<const unsigned char*>(pixels.data());
    const auto* const message = reinterpret_cast<const unsigned char*>(words.data());
    uint64_t length = 0;
    const auto add = [&](const char* way, auto code) { count(subject + way, pixels.size(), code); };
    add("encode",
        [&] { length = EncodeImage(pixels.data(), picture.width, picture.height, words); });
    add("literal encode",
        [&] { encode_literally(pixels.data(), picture.width, picture.height, words); });
    volatile uint32_t checksum = 0;
    add("checksum", [&] { checksum = Crc32(message, length); });
    add("table checksum", [&] { checksum = crc32_literally(message, length); });
    add("copy", [&] { CopyWide(copy.data(), bytes, picture.size()); });
}

}  // namespace

int main() {
    count("nothing", 1, [] {});
    count("loop", 1, known_loop);
    for (const uint16_t width : {uint16_t{1280}, uint16_t{1024}}) {
        for (const BenchPicture& picture :
             draw_pictures(width, static_cast<uint16_t>(width * 3 / 4))) {
            count_picture(picture, picture.pixels);
        }
    }
}
