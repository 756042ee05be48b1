#include "bench/pictures.h"

#include <random>

#include "devkit/core/scenes.h"

namespace guilink {

namespace {

void draw_text(Canvas& canvas) {
    constexpr int LINE = 34;  // line height, in pixels
    canvas.fill({0, 0, WIDTH, HEIGHT}, 0, {0.05, 0.05, 0.1});
    std::string line;
    for (int i = 0; i < 4; ++i) line += "The quick brown fox jumps over the lazy dog. ";
    for (int y = LINE; y < HEIGHT; y += LINE) canvas.text(8 - y, y, 27, line + line, {1, 1, 1});
}

}  // namespace

std::vector<BenchPicture> draw_pictures() {
    Canvas canvas(WIDTH, HEIGHT);
    const Gui gui("11111");
    const Moment moment = {.frame = 1, .seconds = 1, .clock = "12:00:00"};
    const auto blank = [&](const std::string& name) {
        return BenchPicture{name, std::vector<uint16_t>(size_t{WIDTH} * HEIGHT)};
    };
    const auto drawn = [&](const std::string& name, Scene scene) {
        BenchPicture picture = blank(name);
        draw_scene(scene, gui, canvas, moment, picture.pixels);
        return picture;
    };
    std::vector<BenchPicture> pictures = {
        blank("blank"), drawn("overlay", Scene::overlay),   drawn("menu", Scene::menu),
        blank("text"),  drawn("gradient", Scene::gradient), blank("noise")};
    draw_text(canvas);
    canvas.read(pictures[3].pixels);
    std::mt19937 random(1);
    for (uint16_t& pixel : pictures[5].pixels) pixel = static_cast<uint16_t>(random());
    return pictures;
}

}  // namespace guilink
