// The viewer's link to one device: a companion, and the hub that shares its link. The companion's
// thread never waits for the event loop.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "devkit/viewer/hub.h"
#include "guilink/companion.h"

namespace guilink {

class DeviceLink {
  public:
    // `device` is the identity or the address of the wanted device; empty: the only one in sight.
    // Clients choose another one by `choose`. Throws std::runtime_error if the companion cannot
    // listen on its ports.
    DeviceLink(WebServer& server, std::string device, Hub::Choose choose);
    DeviceLink(const DeviceLink&) = delete;
    DeviceLink& operator=(const DeviceLink&) = delete;

    const std::shared_ptr<Hub>& hub() const { return m_hub; }
    const std::string& wanted() const { return m_wanted; }  // the chosen device, or empty
    void choose(const std::string& device);
    // Whether the link is to the device with this identity or address.
    bool is_to(const std::string& device) const;
    // Whether the link was made for this device, or waits for it to come back.
    bool was_for(const std::string& device) const;
    void use() { m_used = std::chrono::steady_clock::now(); }
    // Returns when it was last used; that is now if a session has the hub.
    std::chrono::steady_clock::time_point used() const {
        return m_hub.use_count() > 1 ? std::chrono::steady_clock::now() : m_used;
    }

  private:
    struct Inbox;

    bool send(const Order& order, uint64_t number);

    std::string m_wanted;
    std::chrono::steady_clock::time_point m_used = std::chrono::steady_clock::now();
    const std::shared_ptr<Hub> m_hub;
    const std::shared_ptr<Inbox> m_inbox;
    Companion m_companion;  // the first to be destroyed, because its thread uses the others
};

}  // namespace guilink
