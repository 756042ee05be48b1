// The browsers' connections: files over HTTP, and for each page that is open a WebSocket that
// mirrors the device. A browser that cannot keep up gets the newest image only, and slows down no
// other one.
//
// All of it runs on one event loop, on the thread that calls run.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "devkit/companion/companion.h"

namespace guilink {

// Called on the event loop's thread.
struct PageHandlers {
    std::function<void(uint8_t)> press;
    std::function<void(const std::string&)> text;
};

class Sessions {
  public:
    // Takes ownership of a listening socket. labels is JSON, as load_labels returns it.
    Sessions(int listener, std::string labels, PageHandlers handlers);
    ~Sessions();
    Sessions(const Sessions&) = delete;
    Sessions& operator=(const Sessions&) = delete;

    void run();  // until stop

    // From any thread.
    void stop();
    void post(std::function<void()> task);  // run calls it

    // Only from a posted task. skipped: images before this one that were never offered.
    void offer_status(const LinkStatus& status);
    void offer_image(const Companion::Payload& payload, uint64_t skipped);

  private:
    class Implementation;
    const std::unique_ptr<Implementation> m_implementation;
};

}  // namespace guilink
