#include "devkit/viewer/guesses.h"

#include <algorithm>
#include <utility>

namespace guilink {

namespace {

constexpr size_t MOST = 8;            // wrong tokens that are counted; more change nothing
constexpr size_t TOKEN_LENGTH = 256;  // characters of a wrong token that are remembered

}  // namespace

Guesses::Clock::duration Guesses::wait(const std::string& sender, Clock::time_point now) const {
    const auto found = m_guessers.find(sender);
    if (found == m_guessers.end() || now - found->second.last > FORGOTTEN) return {};
    const size_t guesses = found->second.tokens.size();
    if (guesses <= FREE) return {};
    const auto doubled = std::chrono::seconds(1 << (guesses - FREE - 1));
    return std::min<Clock::duration>(doubled, LONGEST_WAIT);
}

void Guesses::add(const std::string& sender, std::string token, Clock::time_point now) {
    if (!m_guessers.contains(sender) && m_guessers.size() >= MAX_SENDERS)
        m_guessers.erase(std::ranges::min_element(
            m_guessers, {}, [](const auto& entry) { return entry.second.last; }));
    Guesser& guesser = m_guessers[sender];
    if (now - guesser.last > FORGOTTEN) guesser.tokens.clear();
    token.resize(std::min(token.size(), TOKEN_LENGTH));
    if (guesser.tokens.size() < MOST ? guesser.tokens.insert(std::move(token)).second
                                     : !guesser.tokens.contains(token))
        guesser.last = now;
}

}  // namespace guilink
