// The viewer's report about itself and its link, for pages, programs and monitoring.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "devkit/viewer/client.h"
#include "devkit/viewer/page_message.h"
#include "devkit/viewer/received_image.h"
#include "guilink/companion.h"

namespace guilink {

// Who holds a device, so that nobody else may press.
struct Held {
    std::string by = {};  // empty: nobody
    std::chrono::duration<double> rest = {};
    bool mine = false;  // the reader of the report holds it
};

struct Report {
    LinkStatus status;
    std::vector<SearchingDevice> devices;  // the device with the latest broadcast comes first
    ReceivedImage newest;
    std::optional<std::chrono::duration<double>> age;        // time since the newest picture
    std::optional<std::chrono::duration<double>> unchanged;  // time since it last changed
    double pictures_per_second = 0;
    double bytes_per_second = 0;
    uint64_t skipped = 0;  // pictures not sent, because a page or program was too slow
    size_t pages = 0;
    size_t programs = 0;
    size_t streams = 0;
    Held held;
};

// A device that the viewer knows.
struct KnownDevice {
    // What names it in a path: its identity, or its address if another device has this identity.
    std::string id;
    std::string identity;
    std::string firmware;
    std::string address;
    Report report;           // if it is linked, or shall be
    bool searching = false;  // for a companion
};

// Returns JSON: the link, the devices in the network, what the reader may do ("press" or "view"),
// who holds the device, and how many pictures the reader has skipped.
std::string page_status(const LinkStatus& status, const std::vector<SearchingDevice>& devices,
                        Access access, const Held& held, uint64_t skipped);

// Returns JSON: what a client has done, and who it is (see page_session.h). Does not contain texts,
// because those who may only look read it, too.
std::string event_json(const Order& order, const Client& by);
std::string event_json(const Choice& choice, const Client& by);

std::string state_json(const Report& report, Access access);
std::string devices_json(const std::vector<KnownDevice>& devices);

constexpr const char* OPENMETRICS = "application/openmetrics-text; version=1.0.0; charset=utf-8";
// `devices` are the linked devices, or those that shall be; `heard` is the number of all.
std::string metrics_text(const std::vector<KnownDevice>& devices, size_t heard);

}  // namespace guilink
