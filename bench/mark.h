// Constants that guilink-instructions shares with the plugin that counts its instructions.
#pragma once

namespace guilink {

constexpr long MARK = 26'485;              // number of a system call that does not exist
constexpr long KNOWN_LENGTH = 10'000'000;  // instructions of the loop that checks the plugin

}  // namespace guilink
