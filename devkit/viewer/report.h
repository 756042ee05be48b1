// The viewer's report about itself and its link, for pages, programs and monitoring.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "devkit/viewer/received_image.h"
#include "guilink/companion.h"

namespace guilink {

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
};

// Returns JSON: the link, the devices in the network, and how many pictures a page has skipped.
std::string page_status(const LinkStatus& status, const std::vector<SearchingDevice>& devices,
                        uint64_t skipped);

std::string state_json(const Report& report);

constexpr const char* OPENMETRICS = "application/openmetrics-text; version=1.0.0; charset=utf-8";
std::string metrics_text(const Report& report);

}  // namespace guilink
