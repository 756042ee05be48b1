// This project has macros, functions and classes with the names that Guilink uses inside.
#define ACQUIRE 1
#define BUTTONS 16
#define CAPABILITY 1
#define GUARDED_BY 1
#define ID_SIZE "five"
#define LINK_PORT "8399"
#define MAX_PIXELS 640 * 480
#define MAX_TEXT 80
#define REQUIRES 1

#include <guilink/companion.h>

#include <cstdio>
#include <stdexcept>

struct Mutex {
    long owner = 1;
    void lock();
};
void Mutex::lock() {
    ++owner;
}
struct Lock {};
struct NetSocket {};
unsigned Crc32(const unsigned char*, unsigned long) {
    return 7;
}
void BuildFrame(unsigned short, const unsigned char*, unsigned long) {}

int main() {
    // An image of 2 x 1 pixels. It has only a run of one pixel, because the last pixel of an image
    // is not sent.
    const guilink::Image image = {2, 0, 1, 0, 1, 0, 0x34, 0x12};
    guilink::Picture picture;
    guilink::decode_image(image, picture);

    guilink::Companion::Handlers handlers;
    handlers.status = [](const guilink::LinkStatus& link) { std::puts(link.identity.c_str()); };
    guilink::Companion companion(handlers);
    companion.press(3);
    companion.choose("127.0.0.1");
    try {
        guilink::find_devices(std::chrono::milliseconds(1));
        return 2;  // the companion has this port
    } catch (const std::runtime_error& error) {
        std::puts(error.what());
    }
    Mutex().lock();
    BuildFrame(0, nullptr, Crc32(nullptr, 0));
    return picture.pixels == std::vector<std::uint16_t>{0x1234, 0x1234} ? 0 : 1;
}
