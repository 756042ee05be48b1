// The state of the simulated GUI, a menu of pages, and how the buttons change it. Every button
// changes something visible. draw_gui.h draws it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "devkit/core/buttons.h"

namespace guilink {

class Gui {
  public:
    static constexpr int SLIDER_MAX = 10;
    static constexpr int ZOOM_MAX = 8;
    static constexpr size_t PALETTES = 4;

    enum class PageName { menu, display, image, recordings, about };
    enum class Kind { page, slider, toggle, item };

    struct Row {
        std::string label;
        Kind kind;
        // Slider: 0 to SLIDER_MAX. Toggle: 0 or 1. Page: the PageName that the row opens.
        // Item: the length of a recording in seconds, minus 10.
        int value = 0;
    };
    struct Page {
        std::string title;
        std::vector<Row> rows;
        size_t selected = 0;
    };
    struct State {
        std::string identity;
        std::vector<Page> pages;  // indexed by PageName
        PageName page_name = PageName::menu;
        bool powered = true;
        bool page_open = true;
        bool hidden = false;
        int zoom = 2;
        size_t palette = 0;
        std::optional<Button> last_button;

        const Page& page() const { return pages[static_cast<size_t>(page_name)]; }
    };

    explicit Gui(std::string identity);

    void press(Button button);
    const State& state() const { return m_state; }

  private:
    Page& page() { return m_state.pages[static_cast<size_t>(m_state.page_name)]; }
    void open(PageName name);
    void move(size_t by);
    void enter();
    void change(int by);

    State m_state;
};

}  // namespace guilink
