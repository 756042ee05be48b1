#include "devkit/core/draw_gui.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

namespace guilink {

namespace {

// Converts a level of 0 to 15, as the link carries it, so a companion receives exactly these
// colours.
constexpr double step(int level) {
    return level / 15.0;
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
static_assert(std::size(ACCENTS) == Gui::PALETTES);

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

struct Painter {
    Canvas& canvas;
    const Gui::State& gui;
    const Moment& moment;
    const Colour accent = ACCENTS[gui.palette];

    void draw() const {
        canvas.clear();
        if (!gui.powered) {
            canvas.fill({0, 0, 1280, 960}, 0, DARK);
            return canvas.disc(1240, 920, 8, RED);
        }
        if (!gui.hidden) {
            draw_viewfinder();
            draw_status_bar();
            if (gui.page_open) draw_page();
        }
        draw_last_button();
    }

    // Draws the corners of a square around the target, and a compass below the square.
    void draw_viewfinder() const {
        constexpr double X = 900;
        constexpr double Y = 500;
        const double half_side = 60.0 + 130.0 / gui.zoom;
        for (const double side : {-1.0, 1.0}) {
            for (const double end : {-1.0, 1.0}) {
                const double x = X + side * half_side;
                const double y = Y + end * half_side;
                canvas.line(x + 2 * side, y, x - 36 * side, y, 4, accent);
                canvas.line(x, y + 2 * end, x, y - 36 * end, 4, accent);
            }
        }
        canvas.disc(X, Y, 4, RED);

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
        canvas.line(X, 866, X, 892, 4, accent);
    }

    void draw_status_bar() const {
        canvas.fill({0, 0, 1280, 72}, 0, PANEL);
        canvas.text(30, 48, 34, moment.clock, WHITE, Align::left, true);
        canvas.text(640, 47, 28, "× " + std::to_string(gui.zoom), accent, Align::centre, true);
        canvas.text(1010, 47, 24, "frame " + std::to_string(moment.frame), GREY, Align::right);

        // The displayed signal strength varies; the battery level is fixed.
        const double strength = 3.5 + 1.5 * wave(moment.seconds, 6);
        for (int bar = 0; bar < 5; ++bar) {
            const double height = 8.0 + 7 * bar;
            canvas.fill({1040.0 + 13 * bar, 52 - height, 9, height}, 2,
                        bar < strength ? accent : TRACK);
        }
        canvas.outline({1140, 22, 84, 30}, 6, 3, WHITE);
        canvas.fill({1226, 31, 6, 12}, 0, WHITE);
        canvas.fill({1146, 28, 54, 18}, 2, accent);
    }

    void draw_page() const {
        canvas.fill(PANEL_BOX, 24, PANEL);
        canvas.text(PANEL_BOX.x + 36, PANEL_BOX.y + 66, 40, gui.page().title, WHITE, Align::left,
                    true);
        // A bar moves back and forth below the title, so that successive frames differ.
        const double track = PANEL_BOX.width - 72;
        const double run = (track - 90) * (0.5 + 0.5 * wave(moment.seconds, 4));
        canvas.fill({PANEL_BOX.x + 36, PANEL_BOX.y + 88, track, 4}, 2, TRACK);
        canvas.fill({PANEL_BOX.x + 36 + run, PANEL_BOX.y + 88, 90, 4}, 2, accent);
        if (gui.page_name == Gui::PageName::about) return draw_about();

        const auto& rows = gui.page().rows;
        const size_t selected = gui.page().selected;
        const size_t first = selected < VISIBLE_ROWS ? 0 : selected - VISIBLE_ROWS + 1;
        const size_t end = std::min(rows.size(), first + VISIBLE_ROWS);
        for (size_t i = first; i < end; ++i) {
            const double y = PANEL_BOX.y + 120 + ROW_HEIGHT * static_cast<double>(i - first);
            draw_row(rows[i], y, i == selected);
        }
        if (rows.size() > VISIBLE_ROWS) {
            const double height = ROW_HEIGHT * VISIBLE_ROWS;
            const double part = height / static_cast<double>(rows.size());
            const double x = PANEL_BOX.x + PANEL_BOX.width - 16;
            canvas.fill({x, PANEL_BOX.y + 120, 6, height}, 3, TRACK);
            canvas.fill(
                {x, PANEL_BOX.y + 120 + part * static_cast<double>(first), 6, part * VISIBLE_ROWS},
                3, accent);
        }
    }

    void draw_row(const Gui::Row& row, double y, bool selected) const {
        const double left = PANEL_BOX.x + 24;
        const double right = PANEL_BOX.x + PANEL_BOX.width - 56;
        const double middle = y + ROW_HEIGHT / 2;
        const Colour text = selected ? DARK : WHITE;
        if (selected) canvas.fill({left, y + 5, PANEL_BOX.width - 52, ROW_HEIGHT - 10}, 14, accent);
        canvas.text(left + 22, middle + 11, 30, row.label, text, Align::left, selected);
        switch (row.kind) {
            case Gui::Kind::page: {
                const double sway = selected ? 4 * wave(moment.seconds, 1.2) : 0;
                canvas.line(right - 14 + sway, middle - 12, right + sway, middle, 5, text);
                canvas.line(right + sway, middle, right - 14 + sway, middle + 12, 5, text);
                return;
            }
            case Gui::Kind::slider: {
                const double part = 180.0 * row.value / Gui::SLIDER_MAX;
                canvas.fill({right - 180, middle - 5, 180, 10}, 5, TRACK);
                canvas.fill({right - 180, middle - 5, std::max(part, 10.0), 10}, 5,
                            selected ? DARK : accent);
                return canvas.disc(right - 180 + part, middle, 13, WHITE);
            }
            case Gui::Kind::toggle: {
                const bool on = row.value != 0;
                canvas.fill({right - 74, middle - 18, 74, 36}, 18,
                            on ? (selected ? DARK : accent) : TRACK);
                return canvas.disc(on ? right - 18 : right - 56, middle, 13, WHITE);
            }
            case Gui::Kind::item:
                return canvas.text(right, middle + 9, 24, "00:" + std::to_string(10 + row.value),
                                   text, Align::right);
        }
    }

    void draw_about() const {
        const std::pair<const char*, std::string> lines[] = {
            {"Identity", gui.identity},
            {"Screen", std::to_string(canvas.width()) + " × " + std::to_string(canvas.height())},
            {"Drawn", std::to_string(moment.frame) + " frames"},
            {"By", "guilink-core"},
        };
        double y = PANEL_BOX.y + 180;
        for (const auto& [name, value] : lines) {
            canvas.text(PANEL_BOX.x + 36, y, 26, name, GREY);
            canvas.text(PANEL_BOX.x + PANEL_BOX.width - 40, y, 28, value, WHITE, Align::right,
                        true);
            y += 66;
        }
    }

    void draw_last_button() const {
        if (!gui.last_button) return;
        canvas.fill({1010, 96, 240, 52}, 26, PANEL);
        canvas.disc(1040, 122, 8, accent);
        canvas.text(1062, 131, 26, BUTTON_NAMES[static_cast<size_t>(*gui.last_button)], WHITE);
    }
};

}  // namespace

void draw_gui(Canvas& canvas, const Gui& gui, const Moment& moment) {
    Painter{canvas, gui.state(), moment}.draw();
}

}  // namespace guilink
