// The files of the page, built into the viewer.
#pragma once

#include <string_view>

namespace guilink {

struct Asset {
    std::string_view path;  // in the URL
    std::string_view type;  // of its content, as in HTTP
    std::string_view content;
};

// Null when there is no such file.
const Asset* find_asset(std::string_view path);

}  // namespace guilink
