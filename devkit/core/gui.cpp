#include "devkit/core/gui.h"

#include <algorithm>
#include <utility>

namespace guilink {

Gui::Gui(std::string identity) {
    m_state.identity = std::move(identity);
    const auto link = [](const char* label, PageName target) {
        return Row{label, Kind::page, static_cast<int>(target)};
    };
    std::vector<Row> recordings;
    for (int i = 12; i > 0; --i) {
        recordings.push_back({"Clip " + std::to_string(100 + i), Kind::item, 7 * i % 60});
    }
    m_state.pages = {
        {"Menu",
         {link("Display", PageName::display), link("Image", PageName::image),
          link("Recordings", PageName::recordings), link("About", PageName::about)}},
        {"Display",
         {{"Brightness", Kind::slider, 6},
          {"Contrast", Kind::slider, 5},
          {"Colour", Kind::slider, 8},
          {"Night mode", Kind::toggle, 0}}},
        {"Image",
         {{"Stabiliser", Kind::toggle, 1},
          {"Noise filter", Kind::toggle, 1},
          {"Sharpness", Kind::slider, 4},
          {"Edges", Kind::toggle, 0}}},
        {"Recordings", std::move(recordings)},
        {"About", {}},
    };
}

void Gui::press(Button button) {
    m_state.last_button = button;
    if (button == Button::power) m_state.powered = !m_state.powered;
    if (!m_state.powered) return;

    auto& brightness = m_state.pages[static_cast<size_t>(PageName::display)].rows[0].value;
    switch (button) {
        case Button::up:
            return move(std::max<size_t>(page().rows.size(), 1) - 1);
        case Button::down:
            return move(1);
        case Button::left:
            return change(-1);
        case Button::right:
            return change(1);
        case Button::ok:
            return enter();
        case Button::back:
            m_state.page_open = m_state.page_open && m_state.page_name != PageName::menu;
            m_state.page_name = PageName::menu;
            return;
        case Button::menu:
            m_state.page_open = !m_state.page_open || m_state.page_name != PageName::menu;
            m_state.page_name = PageName::menu;
            return;
        case Button::zoom_in:
            m_state.zoom = std::min(m_state.zoom + 1, ZOOM_MAX);
            return;
        case Button::zoom_out:
            m_state.zoom = std::max(m_state.zoom - 1, 1);
            return;
        case Button::brighter:
            brightness = std::min(brightness + 1, SLIDER_MAX);
            return;
        case Button::darker:
            brightness = std::max(brightness - 1, 0);
            return;
        case Button::palette:
            m_state.palette = (m_state.palette + 1) % PALETTES;
            return;
        case Button::hide:
            m_state.hidden = !m_state.hidden;
            return;
        case Button::info:
            return open(PageName::about);
        case Button::power:
        case Button::size:  // main.cpp changes the screen size
            return;
    }
}

void Gui::open(PageName name) {
    m_state.page_name = name;
    m_state.page_open = true;
}

void Gui::move(size_t by) {
    if (const size_t rows = page().rows.size(); rows != 0) {
        page().selected = (page().selected + by) % rows;
    }
}

void Gui::enter() {
    if (!m_state.page_open) return open(PageName::menu);
    if (page().rows.empty()) return;
    const Row& row = page().rows[page().selected];
    if (row.kind == Kind::page) return open(static_cast<PageName>(row.value));
    if (row.kind == Kind::toggle) change(row.value == 0 ? 1 : -1);
}

void Gui::change(int by) {
    if (!m_state.page_open || page().rows.empty()) return;
    Row& row = page().rows[page().selected];
    if (row.kind == Kind::slider) row.value = std::clamp(row.value + by, 0, SLIDER_MAX);
    if (row.kind == Kind::toggle) row.value = by > 0 ? 1 : 0;
}

}  // namespace guilink
