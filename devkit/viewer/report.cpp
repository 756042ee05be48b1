#include "devkit/viewer/report.h"

#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

namespace guilink {

namespace {

using nlohmann::json;

// Identity and firmware may be any bytes, not only UTF-8.
std::string text_of(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json held_json(const Held& held) {
    if (held.by.empty()) return nullptr;
    return {{"by", held.by}, {"seconds", held.rest.count()}, {"mine", held.mine}};
}

json status_json(const LinkStatus& status, const std::vector<SearchingDevice>& devices,
                 Access access, const Held& held) {
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
            {"held", held_json(held)},
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
                        Access access, const Held& held, uint64_t skipped) {
    json message = status_json(status, devices, access, held);
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
    json state = status_json(report.status, report.devices, access, report.held);
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

std::string devices_json(const std::vector<KnownDevice>& devices) {
    json list = json::array();
    for (const KnownDevice& device : devices) {
        const Report& report = device.report;
        list.push_back({{"id", device.id},
                        {"identity", device.identity},
                        {"firmware", device.firmware},
                        {"address", device.address},
                        {"state", report.status.linked ? "linked"
                                  : device.searching   ? "searching"
                                                       : "waiting"},
                        {"age", report.age ? json(report.age->count()) : json(nullptr)},
                        {"pictures", report.newest.data != nullptr ? report.newest.number : 0},
                        {"held", held_json(report.held)}});
    }
    return text_of({{"devices", list}}) + '\n';
}

std::string metrics_text(const std::vector<KnownDevice>& devices, size_t heard) {
    std::ostringstream text;
    // JSON escapes quotes and backslashes as OpenMetrics does. Control characters are dropped.
    const auto quoted = [](std::string value) {
        std::erase_if(value, [](char c) { return (c & 0xE0) == 0 || c == 0x7F; });
        return text_of(value);
    };
    const auto family = [&](const char* name, const char* type, const char* help) {
        text << "# TYPE " << name << ' ' << type << "\n# HELP " << name << ' ' << help << '\n';
    };
    // `value_of` tells the value of a device's report, or nothing if there is none.
    const auto series = [&](const char* name, const char* type, const char* help,
                            const auto& value_of) {
        family(name, type, help);
        for (const KnownDevice& device : devices) {
            const std::optional<double> value = std::invoke(value_of, device.report);
            if (!value) continue;
            text << name << (type == std::string("counter") ? "_total" : "")
                 << "{device=" << quoted(device.id) << "} " << *value << '\n';
        }
    };
    const auto seconds = [](const std::optional<std::chrono::duration<double>>& time) {
        return time ? std::optional(time->count()) : std::nullopt;
    };
    text.precision(15);
    series("guilink_linked", "gauge", "1 while the device is linked.",
           [](const Report& report) { return report.status.linked ? 1.0 : 0.0; });
    family("guilink_device", "info", "A linked device.");
    for (const KnownDevice& device : devices) {
        if (device.report.status.linked)
            text << "guilink_device_info{device=" << quoted(device.id)
                 << ",identity=" << quoted(device.identity)
                 << ",firmware=" << quoted(device.firmware) << ",address=" << quoted(device.address)
                 << "} 1\n";
    }
    family("guilink_devices", "gauge", "Devices that were heard.");
    text << "guilink_devices " << heard << '\n';
    series("guilink_pictures", "counter", "Pictures received.",
           [](const Report& report) { return report.newest.number; });
    series("guilink_picture_bytes", "counter", "Bytes of the pictures received.",
           [](const Report& report) { return report.newest.bytes; });
    series("guilink_picture_age_seconds", "gauge", "Age of the newest picture.",
           [&](const Report& report) { return seconds(report.age); });
    series("guilink_picture_unchanged_seconds", "gauge",
           "Time since a picture differed from the last one.",
           [&](const Report& report) { return seconds(report.unchanged); });
    series("guilink_skipped_pictures", "counter",
           "Pictures that pages and programs were too slow for.", &Report::skipped);
    series("guilink_pages", "gauge", "Open pages.", &Report::pages);
    series("guilink_programs", "gauge", "Connected programs.", &Report::programs);
    series("guilink_streams", "gauge", "Readers of the stream.", &Report::streams);
    text << "# EOF\n";
    return text.str();
}

}  // namespace guilink
