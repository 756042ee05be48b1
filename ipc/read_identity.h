// The device's identity in the settings file.
#pragma once

#include <istream>
#include <optional>
#include <string>

// Finds the first line that begins with BODY_QR= and returns the five characters after the equals
// sign, or fewer if the line is shorter. Returns nothing if no line begins with BODY_QR=.
std::optional<std::string> read_identity(std::istream& settings);
