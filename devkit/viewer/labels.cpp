#include "devkit/viewer/labels.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

namespace guilink {

namespace {

constexpr const char* DEFAULTS = R"([
    {"button": 0, "label": "Up", "key": "ArrowUp", "place": "up"},
    {"button": 1, "label": "Down", "key": "ArrowDown", "place": "down"},
    {"button": 2, "label": "Left", "key": "ArrowLeft", "place": "left"},
    {"button": 3, "label": "Right", "key": "ArrowRight", "place": "right"},
    {"button": 4, "label": "OK", "key": "Enter", "place": "ok"},
    {"button": 5, "label": "Back", "key": "Backspace", "place": "back"},
    {"button": 6, "label": "Menu", "key": "m", "place": "menu"},
    {"button": 8, "label": "Zoom in", "key": "+"},
    {"button": 9, "label": "Zoom out", "key": "-"},
    {"button": 12, "label": "Palette", "key": "c"},
    {"button": 10, "label": "Brighter", "key": "b"},
    {"button": 11, "label": "Darker", "key": "d"},
    {"button": 13, "label": "Hide", "key": "h"},
    {"button": 14, "label": "Size", "key": "s"},
    {"button": 15, "label": "Info", "key": "i"},
    {"button": 7, "label": "Power", "key": "p", "place": "wide", "confirm": true}
])";

constexpr size_t MAX_LABEL = 24;  // bytes; more would not fit a button
constexpr std::string_view PLACES[] = {"up", "down", "left", "right", "ok", "back", "menu", "wide"};

void check(const nlohmann::json& labels) {
    const auto require = [](bool condition, const std::string& what) {
        if (!condition) throw std::runtime_error(what);
    };
    require(labels.is_array() && !labels.empty(), "it is no JSON array of labels, or an empty one");
    std::set<int64_t> buttons;
    for (const auto& entry : labels) {
        require(entry.is_object(), "an entry is no object");
        const std::string where = " in " + entry.dump();
        const auto button = entry.find("button");
        require(button != entry.end() && button->is_number_unsigned() && *button <= 255,
                "\"button\" must be a number from 0 to 255" + where);
        require(buttons.insert(button->get<int64_t>()).second,
                "the button has a label already" + where);
        const auto label = entry.find("label");
        require(label != entry.end() && label->is_string() &&
                    label->get_ref<const std::string&>().size() <= MAX_LABEL,
                "\"label\" must be a text of at most 24 bytes" + where);
        for (const auto& [name, value] : entry.items()) {
            const bool known = name == "button" || name == "label";
            require(known || ((name == "key" || name == "place") && value.is_string()) ||
                        (name == "confirm" && value.is_boolean()),
                    "\"" + name + "\" is unknown or of the wrong type" + where);
            require(name != "place" ||
                        std::ranges::count(PLACES, value.get_ref<const std::string&>()) == 1,
                    "unknown \"place\"" + where);
        }
    }
}

}  // namespace

std::string load_labels(const std::string& file) {
    if (file.empty()) return nlohmann::json::parse(DEFAULTS).dump();
    try {
        std::ifstream stream(file);
        if (!stream) throw std::runtime_error("cannot open it");
        const auto labels = nlohmann::json::parse(stream);
        check(labels);
        return labels.dump();
    } catch (const std::exception& error) {
        throw std::runtime_error("cannot read the labels from " + file + ": " + error.what());
    }
}

}  // namespace guilink
