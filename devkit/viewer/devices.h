// All devices that the viewer serves, each with a link of its own. A device is linked when a client
// asks for it, as long as a client uses it. Use this class only on the event loop's thread.
//
// The main device is the one that paths without a device mean. It stays linked: the first named
// one; otherwise the only one in sight, or the first that a client who may press has asked for.
#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "devkit/viewer/device_link.h"
#include "devkit/viewer/requests.h"
#include "devkit/viewer/served.h"

namespace guilink {

class Devices {
  public:
    // Links to the named devices. Throws std::runtime_error if a companion cannot listen on its
    // ports.
    Devices(WebServer& server, Served served);

    const std::shared_ptr<Hub>& main() const { return m_main.hub(); }
    // Returns the hub of the device with this identity or address, and links to it. The device need
    // not be in sight. Returns a reply if the viewer does not serve it, or if several devices in
    // sight have this identity.
    std::variant<std::shared_ptr<Hub>, Reply> find(const std::string& device, Access access);
    // Returns all devices that are linked, shall be linked, or search for a companion.
    std::vector<KnownDevice> known();
    // Links to all known devices, or keeps their links.
    void use_all(Access access);
    size_t heard() const { return main()->searching().size(); }

  private:
    struct Other {
        DeviceLink link;
        bool named;
    };

    // Makes this device the main one, or returns why not.
    std::optional<Hub::Refusal> choose(const std::string& device);
    std::set<std::string> addresses_in_sight(const std::string& device);
    std::vector<SearchingDevice> searching_now();
    bool is_served(const std::string& identity, const std::string& address) const;
    std::vector<DeviceLink*> links();
    DeviceLink* link_of(const std::string& device);
    Other& add(const std::string& device, bool named);
    void tidy();

    WebServer& m_server;
    const Served m_served;
    boost::asio::steady_timer m_timer;
    DeviceLink m_main;
    std::list<std::unique_ptr<Other>> m_others;
};

}  // namespace guilink
