#include "devkit/core/gui.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <utility>

namespace guilink {

namespace {

// Colours of 4 bits a channel, so that they arrive as they are.
constexpr double step(int sixteenth) {
    return sixteenth / 15.0;
}
constexpr Colour WHITE = {1, 1, 1};
constexpr Colour GREY = {step(10), step(11), step(12)};
constexpr Colour DARK = {step(1), step(1), step(2)};
constexpr Colour PANEL = {step(1), step(2), step(3), step(13)};
constexpr Colour TRACK = {step(3), step(4), step(5)};
constexpr Colour RED = {1, step(4), step(4)};
constexpr Colour ACCENTS[] = {{step(4), step(13), step(12)},
                              {1, step(10), step(3)},
                              {step(8), step(11), 1},
                              {step(13), step(8), 1}};

constexpr int SLIDER_MAX = 10;
constexpr int ZOOM_MAX = 8;
constexpr size_t VISIBLE_ROWS = 7;
constexpr Box PANEL_BOX = {70, 150, 560, 740};
constexpr double ROW_HEIGHT = 82;

constexpr const char* BUTTON_NAMES[] = {
    "Up",      "Down",     "Left",     "Right",  "OK",      "Back", "Menu", "Power",
    "Zoom in", "Zoom out", "Brighter", "Darker", "Palette", "Hide", "Size", "Info"};
static_assert(std::size(BUTTON_NAMES) == BUTTON_COUNT);

double wave(double seconds, double period) {
    return std::sin(2 * std::numbers::pi * seconds / period);
}

}  // namespace

Gui::Gui(std::string identity) : m_identity(std::move(identity)) {
    const auto link = [](const char* label, PageName target) {
        return Row{label, Kind::page, static_cast<int>(target)};
    };
    std::vector<Row> recordings;
    for (int i = 12; i > 0; --i) {
        recordings.push_back({"Clip " + std::to_string(100 + i), Kind::item, 7 * i % 60});
    }
    m_pages = {
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
    m_last_button = BUTTON_NAMES[static_cast<size_t>(button)];
    if (button == Button::power) m_powered = !m_powered;
    if (!m_powered) return;

    const auto move = [this](size_t by) {
        if (const size_t rows = page().rows.size(); rows != 0) {
            page().selected = (page().selected + by) % rows;
        }
    };
    auto& brightness = m_pages[static_cast<size_t>(PageName::display)].rows[0].value;
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
            m_page_open = m_page_open && m_page != PageName::menu;
            m_page = PageName::menu;
            return;
        case Button::menu:
            m_page_open = !m_page_open || m_page != PageName::menu;
            m_page = PageName::menu;
            return;
        case Button::zoom_in:
            m_zoom = std::min(m_zoom + 1, ZOOM_MAX);
            return;
        case Button::zoom_out:
            m_zoom = std::max(m_zoom - 1, 1);
            return;
        case Button::brighter:
            brightness = std::min(brightness + 1, SLIDER_MAX);
            return;
        case Button::darker:
            brightness = std::max(brightness - 1, 0);
            return;
        case Button::palette:
            m_palette = (m_palette + 1) % std::size(ACCENTS);
            return;
        case Button::hide:
            m_hidden = !m_hidden;
            return;
        case Button::info:
            return open(PageName::about);
        case Button::power:
        case Button::size:  // whoever owns the frame buffers obeys
            return;
    }
}

void Gui::open(PageName name) {
    m_page = name;
    m_page_open = true;
}

void Gui::enter() {
    if (!m_page_open) return open(PageName::menu);
    if (page().rows.empty()) return;
    const Row& row = page().rows[page().selected];
    if (row.kind == Kind::page) return open(static_cast<PageName>(row.value));
    if (row.kind == Kind::toggle) change(row.value == 0 ? 1 : -1);
}

void Gui::change(int by) {
    if (!m_page_open || page().rows.empty()) return;
    Row& row = page().rows[page().selected];
    if (row.kind == Kind::slider) row.value = std::clamp(row.value + by, 0, SLIDER_MAX);
    if (row.kind == Kind::toggle) row.value = by > 0 ? 1 : 0;
}

Colour Gui::accent() const {
    return ACCENTS[m_palette];
}

void Gui::draw(Canvas& canvas, const Moment& moment) const {
    canvas.clear();
    if (!m_powered) {
        canvas.fill({0, 0, 1280, 960}, 0, DARK);
        return canvas.disc(1240, 920, 8, RED);
    }
    if (!m_hidden) {
        draw_viewfinder(canvas, moment);
        draw_status_bar(canvas, moment);
        if (m_page_open) draw_page(canvas, moment);
    }
    draw_last_button(canvas);
}

// What the device shows over the live picture.
void Gui::draw_viewfinder(Canvas& canvas, const Moment& moment) const {
    constexpr double X = 900;
    constexpr double Y = 500;
    const double half = 60.0 + 130.0 / m_zoom;  // what is zoomed at fills less of the picture
    for (const double side : {-1.0, 1.0}) {
        for (const double end : {-1.0, 1.0}) {
            const double x = X + side * half;
            const double y = Y + end * half;
            canvas.line(x + 2 * side, y, x - 36 * side, y, 4, accent());
            canvas.line(x, y + 2 * end, x, y - 36 * end, 4, accent());
        }
    }
    canvas.disc(X, Y, 4, RED);

    // A compass that sways.
    const double heading = 212 + 18 * wave(moment.seconds, 9);
    canvas.fill({X - 200, 868, 400, 50}, 12, PANEL);
    for (int degree = 0; degree < 360; degree += 10) {
        const double offset = std::remainder(degree - heading, 360) * 5;
        if (std::abs(offset) > 185) continue;
        const bool major = degree % 30 == 0;
        canvas.line(X + offset, 872, X + offset, major ? 888 : 880, 2, GREY);
        if (major && std::abs(offset) < 165) {
            canvas.text(X + offset, 910, 20, std::to_string(degree), WHITE, Align::centre);
        }
    }
    canvas.line(X, 866, X, 892, 4, accent());
}

void Gui::draw_status_bar(Canvas& canvas, const Moment& moment) const {
    canvas.fill({0, 0, 1280, 72}, 0, PANEL);
    canvas.text(30, 48, 34, moment.clock, WHITE, Align::left, true);
    canvas.text(640, 47, 28, "× " + std::to_string(m_zoom), accent(), Align::centre, true);
    canvas.text(1010, 47, 24, "frame " + std::to_string(moment.frame), GREY, Align::right);

    // Signal strength comes and goes; the battery does not.
    const double strength = 3.5 + 1.5 * wave(moment.seconds, 6);
    for (int bar = 0; bar < 5; ++bar) {
        const double height = 8.0 + 7 * bar;
        canvas.fill({1040.0 + 13 * bar, 52 - height, 9, height}, 2,
                    bar < strength ? accent() : TRACK);
    }
    canvas.outline({1140, 22, 84, 30}, 6, 3, WHITE);
    canvas.fill({1226, 31, 6, 12}, 0, WHITE);
    canvas.fill({1146, 28, 54, 18}, 2, accent());
}

void Gui::draw_page(Canvas& canvas, const Moment& moment) const {
    canvas.fill(PANEL_BOX, 24, PANEL);
    canvas.text(PANEL_BOX.x + 36, PANEL_BOX.y + 66, 40, page().title, WHITE, Align::left, true);
    // Something always moves: a line below the title that runs to and fro.
    const double track = PANEL_BOX.width - 72;
    const double run = (track - 90) * (0.5 + 0.5 * wave(moment.seconds, 4));
    canvas.fill({PANEL_BOX.x + 36, PANEL_BOX.y + 88, track, 4}, 2, TRACK);
    canvas.fill({PANEL_BOX.x + 36 + run, PANEL_BOX.y + 88, 90, 4}, 2, accent());
    if (m_page == PageName::about) return draw_about(canvas, moment);

    const auto& rows = page().rows;
    const size_t selected = page().selected;
    const size_t first = selected < VISIBLE_ROWS ? 0 : selected - VISIBLE_ROWS + 1;
    const size_t end = std::min(rows.size(), first + VISIBLE_ROWS);
    for (size_t i = first; i < end; ++i) {
        const double y = PANEL_BOX.y + 120 + ROW_HEIGHT * static_cast<double>(i - first);
        draw_row(canvas, rows[i], y, i == selected, moment);
    }
    if (rows.size() > VISIBLE_ROWS) {
        const double height = ROW_HEIGHT * VISIBLE_ROWS;
        const double part = height / static_cast<double>(rows.size());
        const double x = PANEL_BOX.x + PANEL_BOX.width - 16;
        canvas.fill({x, PANEL_BOX.y + 120, 6, height}, 3, TRACK);
        canvas.fill(
            {x, PANEL_BOX.y + 120 + part * static_cast<double>(first), 6, part * VISIBLE_ROWS}, 3,
            accent());
    }
}

void Gui::draw_row(Canvas& canvas, const Row& row, double y, bool selected,
                   const Moment& moment) const {
    const double left = PANEL_BOX.x + 24;
    const double right = PANEL_BOX.x + PANEL_BOX.width - 56;
    const double middle = y + ROW_HEIGHT / 2;
    const Colour text = selected ? DARK : WHITE;
    if (selected) canvas.fill({left, y + 5, PANEL_BOX.width - 52, ROW_HEIGHT - 10}, 14, accent());
    canvas.text(left + 22, middle + 11, 30, row.label, text, Align::left, selected);
    switch (row.kind) {
        case Kind::page: {
            const double sway = selected ? 4 * wave(moment.seconds, 1.2) : 0;
            canvas.line(right - 14 + sway, middle - 12, right + sway, middle, 5, text);
            canvas.line(right + sway, middle, right - 14 + sway, middle + 12, 5, text);
            return;
        }
        case Kind::slider: {
            const double part = 180.0 * row.value / SLIDER_MAX;
            canvas.fill({right - 180, middle - 5, 180, 10}, 5, TRACK);
            canvas.fill({right - 180, middle - 5, std::max(part, 10.0), 10}, 5,
                        selected ? DARK : accent());
            return canvas.disc(right - 180 + part, middle, 13, WHITE);
        }
        case Kind::toggle: {
            const bool on = row.value != 0;
            canvas.fill({right - 74, middle - 18, 74, 36}, 18,
                        on ? (selected ? DARK : accent()) : TRACK);
            return canvas.disc(on ? right - 18 : right - 56, middle, 13, WHITE);
        }
        case Kind::item:
            return canvas.text(right, middle + 9, 24, "00:" + std::to_string(10 + row.value), text,
                               Align::right);
    }
}

void Gui::draw_about(Canvas& canvas, const Moment& moment) const {
    const std::pair<const char*, std::string> lines[] = {
        {"Identity", m_identity},
        {"Screen", std::to_string(canvas.width()) + " × " + std::to_string(canvas.height())},
        {"Drawn", std::to_string(moment.frame) + " frames"},
        {"By", "guilink-core"},
    };
    double y = PANEL_BOX.y + 180;
    for (const auto& [name, value] : lines) {
        canvas.text(PANEL_BOX.x + 36, y, 26, name, GREY);
        canvas.text(PANEL_BOX.x + PANEL_BOX.width - 40, y, 28, value, WHITE, Align::right, true);
        y += 66;
    }
}

void Gui::draw_last_button(Canvas& canvas) const {
    if (m_last_button.empty()) return;
    canvas.fill({1010, 96, 240, 52}, 26, PANEL);
    canvas.disc(1040, 122, 8, accent());
    canvas.text(1062, 131, 26, m_last_button, WHITE);
}

}  // namespace guilink
