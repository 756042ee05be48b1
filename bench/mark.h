// Constants that guilink-instructions shares with the plugin that counts its instructions.
#pragma once

namespace guilink {

constexpr long MARK = 26'485;  // a system call number that nothing else uses; sets a mark
constexpr long KNOWN_LENGTH = 10'000'000;  // instructions; length of a loop that checks the plugin

}  // namespace guilink
