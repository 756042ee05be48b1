#include "devkit/viewer/report.h"

#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>

namespace guilink {

namespace {

using nlohmann::json;

// Identity and firmware may be any bytes, not only UTF-8.
std::string text_of(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json status_json(const LinkStatus& status, const std::vector<SearchingDevice>& devices,
                 Access access) {
    json heard = json::array();
    const auto now = std::chrono::steady_clock::now();
    for (const SearchingDevice& device : devices) {
        const std::chrono::duration<double> ago = now - device.heard;
        heard.push_back({{"identity", device.identity},
                         {"firmware", device.firmware},
                         {"address", device.address},
                         {"seconds_ago", ago.count()}});
    }
    return {{"state", status.linked    ? "linked"
                      : status.several ? "several"
                                       : "searching"},
            {"address", status.address},
            {"identity", status.identity},
            {"firmware", status.firmware},
            {"wanted", status.wanted},
            {"may", access == Access::press ? "press" : "view"},
            {"devices", heard}};
}

std::string event(const char* what, json details, const Client& by) {
    details["event"] = what;
    details["address"] = by.address;
    details["from"] = by.is_program ? "program" : "page";
    return text_of(details);
}

}  // namespace

std::string page_status(const LinkStatus& status, const std::vector<SearchingDevice>& devices,
                        Access access, uint64_t skipped) {
    json message = status_json(status, devices, access);
    message["skipped"] = skipped;
    return text_of(message);
}

std::string event_json(const Order& order, const Client& by) {
    const auto* const press = std::get_if<Press>(&order);
    return press != nullptr ? event("press", {{"button", press->button}}, by)
                            : event("text", json::object(), by);
}

std::string event_json(const Choice& choice, const Client& by) {
    return event("device", {{"device", choice.device}}, by);
}

std::string state_json(const Report& report, Access access) {
    json state = status_json(report.status, report.devices, access);
    if (report.newest.data != nullptr && report.newest.data->size() >= 4) {
        uint16_t size[2];
        std::memcpy(size, report.newest.data->data(), sizeof size);
        state["size"] = {size[0], size[1]};
    } else {
        state["size"] = nullptr;
    }
    const auto seconds = [](const auto& time) {
        return time ? json(time->count()) : json(nullptr);
    };
    state["age"] = seconds(report.age);
    state["unchanged"] = seconds(report.unchanged);
    state["pictures"] = report.newest.number;
    state["pictures_per_second"] = report.pictures_per_second;
    state["bytes_per_second"] = report.bytes_per_second;
    state["skipped"] = report.skipped;
    state["pages"] = report.pages;
    state["programs"] = report.programs;
    state["streams"] = report.streams;
    return text_of(state) + '\n';
}

std::string metrics_text(const Report& report) {
    std::ostringstream text;
    const auto family = [&](const char* name, const char* type, const char* help) {
        text << "# TYPE " << name << ' ' << type << "\n# HELP " << name << ' ' << help << '\n';
    };
    const auto gauge = [&](const char* name, const char* help, double value) {
        family(name, "gauge", help);
        text << name << ' ' << value << '\n';
    };
    const auto counter = [&](const char* name, const char* help, uint64_t value) {
        family(name, "counter", help);
        text << name << "_total " << value << '\n';
    };
    gauge("guilink_linked", "1 while a device is linked.", report.status.linked);
    if (report.status.linked) {
        // JSON escapes quotes and backslashes as OpenMetrics does. Control characters are dropped.
        const auto quoted = [](std::string value) {
            std::erase_if(value, [](char c) { return (c & 0xE0) == 0 || c == 0x7F; });
            return text_of(value);
        };
        family("guilink_device", "info", "The linked device.");
        text << "guilink_device_info{identity=" << quoted(report.status.identity)
             << ",firmware=" << quoted(report.status.firmware)
             << ",address=" << quoted(report.status.address) << "} 1\n";
    }
    gauge("guilink_devices", "Devices that were heard.",
          static_cast<double>(report.devices.size()));
    counter("guilink_pictures", "Pictures received.", report.newest.number);
    counter("guilink_picture_bytes", "Bytes of the pictures received.", report.newest.bytes);
    if (report.age)
        gauge("guilink_picture_age_seconds", "Age of the newest picture.", report.age->count());
    if (report.unchanged)
        gauge("guilink_picture_unchanged_seconds",
              "Time since a picture differed from the last one.", report.unchanged->count());
    counter("guilink_skipped_pictures", "Pictures that pages and programs were too slow for.",
            report.skipped);
    gauge("guilink_pages", "Open pages.", static_cast<double>(report.pages));
    gauge("guilink_programs", "Connected programs.", static_cast<double>(report.programs));
    gauge("guilink_streams", "Readers of the stream.", static_cast<double>(report.streams));
    text << "# EOF\n";
    return text.str();
}

}  // namespace guilink
