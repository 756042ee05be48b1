// The tokens of visitors (see access_policy.h).
#pragma once

#include <string>

#include "devkit/viewer/access_policy.h"

namespace guilink {

// Returns two random tokens of 128 bits.
Tokens make_tokens();

// Reads the tokens in a file: the one for pressing in the first line and, optionally, the one for
// looking in the second. Throws std::runtime_error if the file is not valid or others can read it.
Tokens read_tokens(const std::string& file);

}  // namespace guilink
