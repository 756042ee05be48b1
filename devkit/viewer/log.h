// The viewer's log: lines on standard error about the link and about what visitors do.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "devkit/viewer/client.h"
#include "devkit/viewer/page_message.h"
#include "guilink/companion.h"

namespace guilink {

// Replaces what is not a printable ASCII character. A text from outside must not begin a line, or
// control a terminal.
std::string printable(std::string text);

// Refused visitors must not fill the disk: at most one line a minute for each address and reason,
// and 32 for all. The others are counted, and the next line has their number.
class Refusals {
  public:
    using Clock = std::chrono::steady_clock;

    // Returns the line to log, or nothing.
    std::string line(const std::string& address, std::string_view why, Clock::time_point now);

  private:
    std::map<std::string, Clock::time_point> m_lines;  // of the last minute
    size_t m_unlogged = 0;                             // since the last line
};

class Log {
  public:
    Log();

    // Logs whether a link has begun or ended.
    void status(const LinkStatus& before, const LinkStatus& now);
    void sent(const Order& order, const Client& by);
    void sent(const Choice& choice, const Client& by);
    void held(const std::string& device, uint32_t seconds, const Client& by);
    void refused(const std::string& address, std::string_view why);

  private:
    void write(std::string_view line) const;

    const bool m_adds_time;
    Refusals m_refusals;
};

}  // namespace guilink
