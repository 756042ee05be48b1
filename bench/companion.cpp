// guilink-bench-companion: the companion of bench/links.py. Presses a button twice a second. Prints
// a line for each event: its name, its time in seconds, on the clock of Python's time.monotonic,
// and a number, which is that of a press or the first pixel of a picture.
#include "guilink/companion.h"

#include <atomic>
#include <cstdio>
#include <thread>

namespace {

using namespace guilink;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds PRESS_TIME(473);  // no multiple of the library's intervals

void print(const char* event, unsigned number = 0, Clock::time_point time = Clock::now()) {
    const std::chrono::duration<double> seconds = time.time_since_epoch();
    std::printf("%s %.6f %u\n", event, seconds.count(), number);
    std::fflush(stdout);
}

}  // namespace

int main() {
    std::atomic<bool> linked{false};
    Picture picture;
    const auto see_status = [&](const LinkStatus& status) {
        if (linked.exchange(status.linked) && !status.linked) print("lost");
    };
    const auto see_image = [&](const SharedImage& image) {
        const auto received = Clock::now();
        decode_image(*image, picture);
        const auto decoded = Clock::now();
        print("received", picture.pixels[0], received);
        print("decoded", picture.pixels[0], decoded);
    };
    Companion companion({see_status, see_image});
    for (unsigned number = 0;; std::this_thread::sleep_for(PRESS_TIME)) {
        if (!linked) continue;
        print("press", number);
        // With a handler, a press is refused if the link has just ended, instead of sent later.
        companion.press(static_cast<std::uint8_t>(number++ % 16), [](Delivery) {});
    }
}
