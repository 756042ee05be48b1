// The assembler reads the page's files (PAGE is their folder).
#include "devkit/viewer/assets.h"

#define EMBED(name, file)                                                      \
    __asm__(                                                                   \
        ".pushsection .rodata\n"                                               \
        "guilink_page_" #name ": .incbin \"" PAGE "/" file                     \
        "\"\n"                                                                 \
        "guilink_page_" #name                                                  \
        "_end:\n"                                                              \
        ".popsection\n");                                                      \
    extern "C" [[gnu::visibility("hidden")]] const char guilink_page_##name[]; \
    extern "C" [[gnu::visibility("hidden")]] const char guilink_page_##name##_end[]
#define CONTENT(name) std::string_view(guilink_page_##name, guilink_page_##name##_end)

EMBED(index, "index.html");
EMBED(bench, "bench.html");
EMBED(bench_script, "bench.js");
EMBED(style, "style.css");
EMBED(icon, "icon.svg");
EMBED(devices, "devices.js");
EMBED(input, "input.js");
EMBED(picker, "picker.js");
EMBED(picture, "picture.js");
EMBED(recording, "recording.js");
EMBED(settings, "settings.js");
EMBED(token, "token.html");
EMBED(view, "view.js");
EMBED(viewer, "viewer.js");

namespace guilink {

const Asset* find_asset(std::string_view path) {
    static const Asset ASSETS[] = {
        {"/", "text/html", CONTENT(index)},
        {"/index.html", "text/html", CONTENT(index)},
        {"/bench.html", "text/html", CONTENT(bench)},
        {"/bench.js", "text/javascript", CONTENT(bench_script)},
        {"/style.css", "text/css", CONTENT(style)},
        {"/icon.svg", "image/svg+xml", CONTENT(icon)},
        {"/devices.js", "text/javascript", CONTENT(devices)},
        {"/input.js", "text/javascript", CONTENT(input)},
        {"/picker.js", "text/javascript", CONTENT(picker)},
        {"/picture.js", "text/javascript", CONTENT(picture)},
        {"/recording.js", "text/javascript", CONTENT(recording)},
        {"/settings.js", "text/javascript", CONTENT(settings)},
        {"/token.html", "text/html", CONTENT(token)},
        {"/view.js", "text/javascript", CONTENT(view)},
        {"/viewer.js", "text/javascript", CONTENT(viewer)},
    };
    for (const Asset& asset : ASSETS) {
        if (asset.path == path) return &asset;
    }
    return nullptr;
}

}  // namespace guilink
