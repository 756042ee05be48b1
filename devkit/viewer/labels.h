// The labels of the page's buttons.
#pragma once

#include <string>

namespace guilink {

// Returns the labels as JSON for the page: the contents of `file` or, if `file` is empty, the
// default labels, which fit guilink-core. Throws std::runtime_error when the file is not valid.
//
// The file is an array of objects with "button" (0 to 255), "label" (text), and optionally "key" (a
// key's name in the browser, such as "ArrowUp" or "z") and "place" (the position on the pad: "up",
// "down", "left", "right", "ok", "back", "menu", or "wide" for a row of its own).
std::string load_labels(const std::string& file);

}  // namespace guilink
