// A cairo surface for the few shapes that the simulated GUI needs.
#pragma once

#include <cairo.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace guilink {

struct Colour {
    double red, green, blue, alpha = 1.0;
};

struct Box {
    double x, y, width, height;
};

enum class Align { left, centre, right };

class Canvas {
  public:
    // Size in pixels. The coordinates of drawing are always those of a 1280 x 960 screen.
    Canvas(uint16_t width, uint16_t height);

    uint16_t width() const { return m_width; }
    uint16_t height() const { return m_height; }
    cairo_t* context() const { return m_context.get(); }  // to draw shapes that Canvas lacks

    void clear();  // to transparent
    void fill(const Box& box, double radius, const Colour& colour);
    void outline(const Box& box, double radius, double thickness, const Colour& colour);
    void line(double x1, double y1, double x2, double y2, double thickness, const Colour& colour);
    void disc(double x, double y, double radius, const Colour& colour);
    // `y` is the text's baseline.
    void text(double x, double y, double size, const std::string& text, const Colour& colour,
              Align align = Align::left, bool bold = false);

    // Copies all pixels, row by row, as ARGB 4:4:4:4, not premultiplied.
    void read(std::span<uint16_t> pixels) const;

  private:
    void path(const Box& box, double radius);
    void use(const Colour& colour);

    const uint16_t m_width;
    const uint16_t m_height;
    const std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> m_surface;
    const std::unique_ptr<cairo_t, decltype(&cairo_destroy)> m_context;
};

}  // namespace guilink
