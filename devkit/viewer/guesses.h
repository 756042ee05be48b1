// Slows down a sender who guesses tokens. After a few wrong tokens, the sender's next request with
// a token, be it right or wrong, must wait. A token that is wrong again is no guess: it may be a
// page that was left open since the viewer was started with other tokens.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <set>
#include <string>

namespace guilink {

class Guesses {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr size_t FREE = 4;                              // wrong tokens without a wait
    static constexpr auto LONGEST_WAIT = std::chrono::seconds(5);  // doubled from 1 s up to this
    static constexpr auto FORGOTTEN = std::chrono::minutes(1);     // after the last new guess
    static constexpr size_t MAX_SENDERS = 1024;                    // the oldest is forgotten

    // Returns how long the sender's next request with a token must wait.
    Clock::duration wait(const std::string& sender, Clock::time_point now) const;
    // `token` was wrong.
    void add(const std::string& sender, std::string token, Clock::time_point now);

  private:
    struct Guesser {
        std::set<std::string> tokens;
        Clock::time_point last;  // time of the last new guess
    };
    std::map<std::string, Guesser> m_guessers;  // by sender
};

}  // namespace guilink
