// Decides which hosts become candidates, and which candidate makes room for another. Remembers
// hosts only until the next search, because a neighbour can forge any number of addresses.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>

class Admission {
  public:
    static constexpr size_t MAX_CANDIDATES = 32;    // each costs a socket and a thread
    static constexpr ptrdiff_t MAX_OF_HOST = 8;     // connections to one host in a search
    static constexpr size_t MAX_REMEMBERED = 1024;  // the latest hosts; older ones are forgotten

    void begin_search() { m_hosts.clear(); }

    // Returns whether `host` may become a candidate. If so, counts it.
    bool admit(uint32_t host) {
        if (std::ranges::count(m_hosts, host) >= MAX_OF_HOST) return false;
        if (m_hosts.size() == MAX_REMEMBERED) m_hosts.pop_front();
        m_hosts.push_back(host);
        return true;
    }

    // Returns the candidate that makes room for a new one; `candidates` is not empty, and the
    // oldest comes first. A good companion becomes the link within milliseconds of its connection,
    // so it is safe as long as it is among the newest. The majority loses its oldest candidate, so
    // that neither forged answers (never connected) nor hosts that only hold a connection leave
    // the other kind without room.
    // Looks at each candidate once, because a connection may begin or end at any time.
    template <typename Candidates>
    static auto makes_room(Candidates& candidates) {
        std::array oldest = {candidates.end(), candidates.end()};  // unconnected, connected
        ptrdiff_t connected = 0;
        for (auto unit = candidates.begin(); unit != candidates.end(); ++unit) {
            const bool is_connected = (*unit)->connected();
            connected += is_connected;
            if (oldest[is_connected] == candidates.end()) oldest[is_connected] = unit;
        }
        return oldest[2 * connected > std::ranges::ssize(candidates)];
    }

  private:
    std::deque<uint32_t> m_hosts;  // the latest hosts that this search has admitted
};
