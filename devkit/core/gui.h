// The simulated device's GUI: a head-up display over a live picture (which is transparent here), a
// menu over it, pages with settings, a list, and a page about the device. Every button does
// something that can be seen.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "devkit/core/buttons.h"
#include "devkit/core/canvas.h"

namespace guilink {

// When a frame is drawn; all that moves follows from it, so that equal moments make equal frames.
struct Moment {
    uint64_t frame = 0;
    double seconds = 0;
    std::string clock;  // shown as it is
};

class Gui {
  public:
    explicit Gui(std::string identity);

    void press(Button button);
    void draw(Canvas& canvas, const Moment& moment) const;

  private:
    enum class PageName { menu, display, image, recordings, about };
    enum class Kind { page, slider, toggle, item };

    struct Row {
        std::string label;
        Kind kind;
        int value = 0;  // of a page row, the page
    };
    struct Page {
        std::string title;
        std::vector<Row> rows;
        size_t selected = 0;
    };

    Page& page() { return m_pages[static_cast<size_t>(m_page)]; }
    const Page& page() const { return m_pages[static_cast<size_t>(m_page)]; }
    void open(PageName name);
    void enter();
    void change(int step);
    Colour accent() const;

    void draw_viewfinder(Canvas& canvas, const Moment& moment) const;
    void draw_status_bar(Canvas& canvas, const Moment& moment) const;
    void draw_page(Canvas& canvas, const Moment& moment) const;
    void draw_row(Canvas& canvas, const Row& row, double y, bool selected,
                  const Moment& moment) const;
    void draw_about(Canvas& canvas, const Moment& moment) const;
    void draw_last_button(Canvas& canvas) const;

    const std::string m_identity;
    std::vector<Page> m_pages;  // by PageName
    PageName m_page = PageName::menu;
    bool m_powered = true;
    bool m_page_open = true;
    bool m_hidden = false;
    int m_zoom = 2;
    size_t m_palette = 0;
    std::string m_last_button;  // empty before the first
};

}  // namespace guilink
