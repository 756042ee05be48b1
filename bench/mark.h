// Constants of guilink-instructions and of the plugin that counts instructions (count_plugin.cpp).
#pragma once

namespace guilink {

constexpr long MARK = 26'485;  // unused system call number; each call starts or stops a count
constexpr long KNOWN_LENGTH = 10'000'000;  // instructions in the loop that checks the plugin

}  // namespace guilink
