// The device's identity in the settings file.
#pragma once

#include <istream>
#include <optional>
#include <string>

// Returns the five characters after BODY_QR= in the first line that begins with it, or fewer if the
// line is shorter.
std::optional<std::string> read_identity(std::istream& settings);
