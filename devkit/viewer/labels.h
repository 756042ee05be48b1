// The names of the device's buttons, as the page shows them.
#pragma once

#include <string>

namespace guilink {

// The JSON that the page gets. From a file, or the defaults, which fit guilink-core, when file is
// empty. Throws std::runtime_error with what is wrong with the file.
//
// The file is an array of objects: "button" (0 to 255), "label" (text), and where wanted "key" (a
// key's name in the browser, such as "ArrowUp" or "z") and "place" (one of "up", "down", "left",
// "right", "ok", "back", "menu", "wide": where on the pad it lies).
std::string load_labels(const std::string& file);

}  // namespace guilink
