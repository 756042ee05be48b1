#include "devkit/viewer/devices.h"

#include <algorithm>
#include <exception>

#include "devkit/viewer/log.h"

namespace guilink {

using namespace std::string_literals;

namespace {

constexpr auto LINGER = std::chrono::seconds(10);   // an unused link ends after this time
constexpr auto IN_SIGHT = std::chrono::seconds(5);  // a device broadcasts about once a second
constexpr auto TIDY_EVERY = std::chrono::seconds(1);
constexpr size_t MAX_LINKS = 64;    // each has a thread
constexpr size_t MAX_UNHEARD = 32;  // leaves links for devices in sight, whatever names are made up
constexpr const char* SEVERAL = "Several devices have this identity; name one by its address.";

bool is_named(const SearchingDevice& device, const std::string& name) {
    return name == device.identity || name == device.address;
}

std::optional<Hub::Refusal> has_its_own_page(const std::string& device) {
    return Hub::Refusal{409, "This device has a page of its own: /device/" + device + "/."};
}

}  // namespace

Devices::Devices(WebServer& server, Served served)
    : m_server(server),
      m_served(std::move(served)),
      m_timer(server.loop()),
      m_main(server, m_served.named.empty() ? "" : m_served.named[0],
             [this](const std::string& choice) { return choose(choice); }) {
    for (size_t i = 1; i < m_served.named.size(); ++i) add(m_served.named[i], true);
    tidy();
}

std::variant<std::shared_ptr<Hub>, Reply> Devices::find(const std::string& device, Access access) {
    if (addresses_in_sight(device).size() > 1) return Reply{409, "text/plain", SEVERAL + "\n"s};
    if (DeviceLink* const link = link_of(device)) {
        link->use();
        return link->hub()->share_of_device();
    }
    const bool served = std::ranges::any_of(main()->searching(), [&](const SearchingDevice& each) {
        return is_named(each, device) && is_served(each.identity, each.address);
    });
    // Made-up names of other bytes could not be told apart in JSON and metrics.
    if (!served && (!is_served(device, device) || printable(device) != device))
        return Reply{404, "text/plain", "This viewer does not serve this device; see --device.\n"};
    // Not if it waits for a device to come back: its clients must not get another one.
    const bool is_free = m_main.wanted().empty() && main()->last_address().empty();
    if (is_free && access == Access::press) {
        m_main.choose(device);
        return main()->share_of_device();
    }
    if (m_others.size() >= (served ? MAX_LINKS : MAX_UNHEARD))
        return Reply{503, "text/plain", "The viewer has links to too many devices.\n"};
    try {
        return add(device, false).link.hub()->share_of_device();
    } catch (const std::exception& error) {  // no thread or descriptor is free
        return Reply{503, "text/plain",
                     std::string("The viewer cannot link: ") + error.what() + '\n'};
    }
}

std::vector<KnownDevice> Devices::known() {
    std::vector<KnownDevice> known;
    for (const DeviceLink* const link : links()) {
        KnownDevice device;
        device.id = link->wanted();
        device.report = link->hub()->report();
        const LinkStatus& status = device.report.status;
        device.identity = status.linked           ? status.identity
                          : status.wanted.empty() ? link->wanted()
                                                  : status.wanted;
        if (!status.linked && device.identity.empty()) continue;
        device.firmware = status.firmware;
        device.address = status.linked ? status.address : link->hub()->last_address();
        known.push_back(std::move(device));
    }
    for (const SearchingDevice& each : searching_now()) {
        if (!is_served(each.identity, each.address)) continue;
        const auto same = std::ranges::find_if(known, [&](const KnownDevice& device) {
            return device.address == each.address ||
                   (device.address.empty() && is_named(each, device.identity));
        });
        KnownDevice& device = same != known.end() ? *same : known.emplace_back();
        if (device.identity.empty()) device.identity = each.identity;
        device.firmware = each.firmware;
        device.address = each.address;
        device.searching = true;
    }
    for (KnownDevice& device : known) {
        const auto equal = std::ranges::count(known, device.identity, &KnownDevice::identity);
        if (equal == 1 && !device.identity.empty() && printable(device.identity) == device.identity)
            device.id = device.identity;
        else if (!device.address.empty())
            device.id = device.address;
    }
    std::ranges::sort(known, {}, [](const KnownDevice& device) {
        return std::pair(device.identity, device.address);
    });
    return known;
}

void Devices::use_all(Access access) {
    for (const KnownDevice& device : known()) find(device.id, access);
}

std::optional<Hub::Refusal> Devices::choose(const std::string& device) {
    const auto in_sight = addresses_in_sight(device);
    const auto named = [&](const auto& each) { return is_named(each, device); };
    if (in_sight.empty() && std::ranges::none_of(main()->searching(), named))
        return Hub::Refusal{404, "No device with this identity or address has called."};
    if (in_sight.size() > 1) return Hub::Refusal{409, SEVERAL};
    if (main()->is_asked_by_name() && !m_main.is_to(device))
        return Hub::Refusal{409, "Somebody has asked for the present device by its name."};
    const DeviceLink* const link = link_of(device);
    if (link != nullptr && link != &m_main) return has_its_own_page(device);
    m_main.choose(device);
    return std::nullopt;
}

std::set<std::string> Devices::addresses_in_sight(const std::string& device) {
    std::set<std::string> addresses;
    for (const SearchingDevice& each : searching_now()) {
        if (is_named(each, device)) addresses.insert(each.address);
    }
    for (const DeviceLink* const link : links()) {
        if (link->is_to(device)) addresses.insert(link->hub()->link().address);
    }
    return addresses;
}

// Returns one entry for each address: while a device starts, it may have another's identity. Leaves
// out those whose links tell which they are.
std::vector<SearchingDevice> Devices::searching_now() {
    std::set<std::string> addresses;
    for (const DeviceLink* const link : links()) {
        const LinkStatus& status = link->hub()->link();
        if (status.linked && !status.identity.empty()) addresses.insert(status.address);
    }
    const auto now = std::chrono::steady_clock::now();
    std::vector<SearchingDevice> searching;
    for (const SearchingDevice& each : main()->searching()) {
        if (now - each.heard <= IN_SIGHT && addresses.insert(each.address).second)
            searching.push_back(each);
    }
    return searching;
}

bool Devices::is_served(const std::string& identity, const std::string& address) const {
    return m_served.named.empty() ||
           std::ranges::any_of(m_served.named, [&](const std::string& name) {
               return name == identity || name == address;
           });
}

std::vector<DeviceLink*> Devices::links() {
    std::vector<DeviceLink*> links = {&m_main};
    for (const auto& other : m_others) links.push_back(&other->link);
    return links;
}

// Returns the link to this device, or the one that was made for it, or null.
DeviceLink* Devices::link_of(const std::string& device) {
    const auto all = links();
    const auto to =
        std::ranges::find_if(all, [&](const auto* link) { return link->is_to(device); });
    if (to != all.end()) return *to;
    // A linked device may have changed its identity, and another one may have the old one.
    const auto another_has_it = [&](const LinkStatus& link) {
        return link.linked && std::ranges::any_of(main()->searching(), [&](const auto& each) {
                   return each.identity == device && each.address != link.address;
               });
    };
    const auto was = std::ranges::find_if(all, [&](const DeviceLink* link) {
        return link->was_for(device) && !another_has_it(link->hub()->link());
    });
    return was != all.end() ? *was : nullptr;
}

Devices::Other& Devices::add(const std::string& device, bool named) {
    m_others.emplace_back(new Other{{m_server, device, has_its_own_page}, named});
    return *m_others.back();
}

// Ends links that nobody uses, and begins those that nobody needs to ask for.
void Devices::tidy() {
    const auto now = std::chrono::steady_clock::now();
    m_others.remove_if([&](const auto& other) {
        if (other->named || (m_served.link_all && other->link.hub()->link().linked))
            other->link.use();
        return now - other->link.used() > LINGER;
    });
    if (m_served.link_all) use_all(Access::press);
    m_timer.expires_after(TIDY_EVERY);
    m_timer.async_wait([this](const boost::system::error_code& error) {
        if (!error) tidy();
    });
}

}  // namespace guilink
