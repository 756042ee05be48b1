// The viewer's link to one device: a companion, and the hub that shares its link. The companion's
// thread never waits for the event loop.
#pragma once

#include <memory>
#include <string>

#include "devkit/viewer/hub.h"
#include "guilink/companion.h"

namespace guilink {

class DeviceLink {
  public:
    // `device` is the identity or the address of the wanted device; empty: the only one in sight.
    // `may_choose` tells whether a client may choose the device with this identity or address.
    // Throws std::runtime_error if the companion cannot listen on its ports.
    DeviceLink(WebServer& server, std::string device, Hub::Choose may_choose);
    DeviceLink(const DeviceLink&) = delete;
    DeviceLink& operator=(const DeviceLink&) = delete;

    const std::shared_ptr<Hub>& hub() const { return m_hub; }
    const std::string& wanted() const { return m_wanted; }  // the chosen device, or empty
    void choose(const std::string& device);
    // Whether the link is to this device, or shall be.
    bool is_for(const std::string& device) const;
    // Whether a session uses the hub.
    bool in_use() const { return m_hub.use_count() > 1; }

  private:
    struct Inbox;

    bool send(const Order& order, uint64_t number);

    std::string m_wanted;
    const std::shared_ptr<Hub> m_hub;
    const std::shared_ptr<Inbox> m_inbox;
    Companion m_companion;  // the first to be destroyed, because its thread uses the others
};

}  // namespace guilink
