// The device's identity in the settings file.
#pragma once

#include <istream>
#include <optional>
#include <string>

// Reads up to the first line that begins with BODY_QR= and returns the next five characters of it,
// or as many as there are. Nothing if no line begins so.
std::optional<std::string> read_identity(std::istream& settings);
