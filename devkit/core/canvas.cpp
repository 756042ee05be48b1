#include "devkit/core/canvas.h"

#include <cstring>
#include <numbers>

namespace guilink {

namespace {

constexpr double UNITS = 1280;  // width of the screen, in drawing units

// Converts a premultiplied ARGB 8:8:8:8 pixel to ARGB 4:4:4:4, not premultiplied.
uint16_t to_4444(uint32_t argb) {
    const uint32_t alpha = argb >> 24;
    uint32_t red = argb >> 16 & 0xFF;
    uint32_t green = argb >> 8 & 0xFF;
    uint32_t blue = argb & 0xFF;
    if (alpha != 0xFF) {
        if (alpha < 0x10) return 0;
        red = red * 0xFF / alpha;
        green = green * 0xFF / alpha;
        blue = blue * 0xFF / alpha;
    }
    return static_cast<uint16_t>((alpha & 0xF0) << 8 | (red & 0xF0) << 4 | (green & 0xF0) |
                                 blue >> 4);
}

}  // namespace

Canvas::Canvas(uint16_t width, uint16_t height)
    : m_width(width),
      m_height(height),
      m_surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height),
                cairo_surface_destroy),
      m_context(cairo_create(m_surface.get()), cairo_destroy) {
    cairo_scale(context(), width / UNITS, width / UNITS);
}

void Canvas::clear() {
    cairo_set_operator(context(), CAIRO_OPERATOR_CLEAR);
    cairo_paint(context());
    cairo_set_operator(context(), CAIRO_OPERATOR_OVER);
}

void Canvas::fill(const Box& box, double radius, const Colour& colour) {
    path(box, radius);
    use(colour);
    cairo_fill(context());
}

void Canvas::outline(const Box& box, double radius, double thickness, const Colour& colour) {
    path(box, radius);
    use(colour);
    cairo_set_line_width(context(), thickness);
    cairo_stroke(context());
}

void Canvas::line(double x1, double y1, double x2, double y2, double thickness,
                  const Colour& colour) {
    use(colour);
    cairo_set_line_width(context(), thickness);
    cairo_move_to(context(), x1, y1);
    cairo_line_to(context(), x2, y2);
    cairo_stroke(context());
}

void Canvas::disc(double x, double y, double radius, const Colour& colour) {
    use(colour);
    cairo_new_path(context());
    cairo_arc(context(), x, y, radius, 0, 2 * std::numbers::pi);
    cairo_fill(context());
}

void Canvas::text(double x, double y, double size, const std::string& text, const Colour& colour,
                  Align align, bool bold) {
    use(colour);
    cairo_select_font_face(context(), "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(context(), size);
    if (align != Align::left) {
        cairo_text_extents_t extents;
        cairo_text_extents(context(), text.c_str(), &extents);
        x -= align == Align::right ? extents.x_advance : extents.x_advance / 2;
    }
    cairo_move_to(context(), x, y);
    cairo_show_text(context(), text.c_str());
}

void Canvas::read(std::span<uint16_t> pixels) const {
    cairo_surface_flush(m_surface.get());
    const unsigned char* row = cairo_image_surface_get_data(m_surface.get());
    const int stride = cairo_image_surface_get_stride(m_surface.get());
    auto pixel = pixels.begin();
    for (uint16_t y = 0; y < m_height; ++y, row += stride) {
        const auto* const argb = reinterpret_cast<const uint32_t*>(row);
        for (uint16_t x = 0; x < m_width; ++x) *pixel++ = to_4444(argb[x]);
    }
}

void Canvas::path(const Box& box, double radius) {
    const auto [x, y, width, height] = box;
    constexpr double QUARTER = std::numbers::pi / 2;
    cairo_new_path(context());
    if (radius == 0) return cairo_rectangle(context(), x, y, width, height);
    cairo_arc(context(), x + width - radius, y + radius, radius, -QUARTER, 0);
    cairo_arc(context(), x + width - radius, y + height - radius, radius, 0, QUARTER);
    cairo_arc(context(), x + radius, y + height - radius, radius, QUARTER, 2 * QUARTER);
    cairo_arc(context(), x + radius, y + radius, radius, 2 * QUARTER, 3 * QUARTER);
    cairo_close_path(context());
}

void Canvas::use(const Colour& colour) {
    cairo_set_source_rgba(context(), colour.red, colour.green, colour.blue, colour.alpha);
}

}  // namespace guilink
