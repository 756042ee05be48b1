// The device's identity in the settings file.
#pragma once

#include <istream>
#include <optional>
#include <string>

// Finds the first line that begins with BODY_QR= and returns the five characters after that, or
// fewer if the line is shorter. Returns nothing if there is no such line.
std::optional<std::string> read_identity(std::istream& settings);
