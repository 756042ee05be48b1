// A companion without a user interface: links to one device, receives its images and presses its
// buttons.
//
// The device searches and connects; the companion answers and waits. On each connection, the
// companion asks the device to make that connection the link. Only the link carries images, so the
// companion is linked when an image has arrived; if the device draws nothing, when it has answered
// for long enough. While there is a link, the companion refuses other devices. It does not store
// images, so a handler must keep those that it needs.
//
// The companion answers only the chosen device. If no device was chosen, the companion answers the
// only device in sight, after 1.5 s in which another device would have broadcast. A device that was
// linked stays chosen, even if its identity or its address changes.
//
// A program may have many companions, one for each device. They share the ports of the computer,
// and each works on a thread of its own, so none delays another. A companion leaves alone the
// devices that the other companions have chosen.
//
// This header is the whole library. It needs C++17, includes nothing but the standard library,
// defines no macro, and has no upper-case name that a macro of yours could replace.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace guilink {

// A device that searches for a companion.
struct SearchingDevice {
    std::string identity;                         // 5 bytes of any value
    std::string firmware;                         // version text
    std::string address;                          // IPv4, dotted
    std::chrono::steady_clock::time_point heard;  // time of the last broadcast
};

struct LinkStatus {
    bool linked = false;
    std::string address;   // the device's IPv4 address, dotted
    std::string identity;  // 5 bytes of any value
    std::string firmware;  // version text

    // Only meaningful while not linked.
    std::string wanted;    // identity or address of the device to link to; empty: any device
    bool several = false;  // several devices are in sight, and none is chosen
};

// The outcome of a press or a text.
enum class Delivery {
    confirmed,  // the device has processed the message
    unknown,    // the link ended after the message was sent, but before it was confirmed
    refused,    // not sent, because there was no link
};

// An image as the device sent it: the payload of an ImageMessage.
using Image = std::vector<unsigned char>;
using SharedImage = std::shared_ptr<const Image>;

// A decoded image.
struct Picture {
    std::uint16_t width = 0;
    std::uint16_t height = 0;
    std::vector<std::uint16_t> pixels;  // ARGB 4:4:4:4, row by row
};

// Decodes into `picture` and reuses its memory. The device never sends the last pixel, so the
// decoder copies the preceding pixel. If the image has only one pixel, the decoder writes 0. Throws
// std::runtime_error if the image is incomplete or has more than 4,194,304 pixels; the contents of
// `picture` are then undefined.
void decode_image(const Image& image, Picture& picture);

// Listens for the given time without answering any device. Returns the devices that search for a
// companion, the one with the most recent broadcast first. A device broadcasts about once a second.
// Throws std::runtime_error if the port is taken, such as by a Companion.
std::vector<SearchingDevice> find_devices(std::chrono::milliseconds time);

class Companion {
  public:
    using DeliveryHandler = std::function<void(Delivery)>;

    // All handlers run on the companion's own thread, one at a time. They must not block for long,
    // throw, or destroy the companion. Each handler may be empty.
    struct Handlers {
        std::function<void(const LinkStatus&)> status = {};  // called when the status changes
        std::function<void(const SharedImage&)> image =
            {};                                             // called for images, even repeated ones
        std::function<void(const std::string&)> text = {};  // called for texts from the device
        // Called when broadcasts have arrived. The argument lists all devices that have broadcast,
        // the most recent one first.
        std::function<void(const std::vector<SearchingDevice>&)> devices = {};
    };

    // Starts to listen. `device` is the identity or the address of the wanted device; if it is
    // empty, the companion chooses the only device in sight. Throws std::runtime_error if another
    // program listens on the companion's ports.
    explicit Companion(Handlers handlers, std::string device = {});
    // Drops the link. If a handler is running, waits until the handler returns.
    ~Companion();
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;

    static constexpr std::size_t max_text = 4096;  // bytes of one text

    // press and send_text queue a message. The device gets the messages in the order of the calls.
    // Any thread may call these functions. If the queue is full or the text is too long, these
    // functions drop the message and return false.
    //
    // If `delivered` is empty, the message waits in the queue until there is a link. If `delivered`
    // is set, the companion refuses the message while there is no link. The companion calls
    // `delivered` once with the outcome, unless the companion is destroyed first. Images that
    // arrived before a confirmation reach the image handler before `delivered` is called.
    bool press(std::uint8_t button, DeliveryHandler delivered = {});
    bool send_text(const std::string& text, DeliveryHandler delivered = {});

    // From now on, links only to the device with this identity or address. Drops an existing link
    // to a different device. Any thread may call this function.
    void choose(std::string device);

  private:
    class Impl;
    const std::unique_ptr<Impl> m_impl;
};

}  // namespace guilink
