// The page's files, built into the viewer.
#pragma once

#include <string_view>

namespace guilink {

struct Asset {
    std::string_view path;  // the URL's path
    std::string_view type;  // HTTP Content-Type
    std::string_view content;
};

// Returns null for an unknown path.
const Asset* find_asset(std::string_view path);

}  // namespace guilink
