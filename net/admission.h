// Limits how often the service connects to each host. Remembers hosts only until the next search,
// because a neighbour can forge any number of addresses.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>

class Admission {
  public:
    static constexpr ptrdiff_t MAX_OF_HOST = 8;     // connections to one host in a search
    static constexpr size_t MAX_REMEMBERED = 1024;  // the latest hosts; older ones are forgotten

    void begin_search() { m_hosts.clear(); }

    // Returns whether the service may connect to `host`. If so, counts it.
    bool admit(uint32_t host) {
        if (std::ranges::count(m_hosts, host) >= MAX_OF_HOST) return false;
        if (m_hosts.size() == MAX_REMEMBERED) m_hosts.pop_front();
        m_hosts.push_back(host);
        return true;
    }

  private:
    std::deque<uint32_t> m_hosts;  // the latest hosts that this search has admitted
};
