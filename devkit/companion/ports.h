// The ports on which devices find and reach the companions of this program. Decides which companion
// answers a device, and passes the device's connections to that companion.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "devkit/companion/descriptor.h"
#include "devkit/companion/discovery.h"
#include "guilink/companion.h"

namespace guilink {

class Ports {
  public:
    // Which device a companion wants. Addresses are IPv4 in network byte order; 0 means none.
    struct Wish {
        std::string device;         // identity or dotted address of the chosen device; empty: any
        std::string last_identity;  // of the device that was linked last, or empty
        uint32_t last_address = 0;
        std::chrono::steady_clock::time_point last_heard = {};  // when that link still worked
        uint32_t link = 0;  // the companion uses a connection from here, and wants no other device
        bool link_is_silent = false;  // so the device may have moved to another address
    };

    // A companion. The ports' thread calls these functions for all companions, so they must return
    // at once, and must not call Ports.
    class Member {
      public:
        virtual ~Member() = default;
        // `several` tells whether several devices search that no companion of this program claims.
        virtual void on_devices(const std::vector<SearchingDevice>& devices, bool several) = 0;
        // Takes ownership of the descriptor of a non-blocking socket.
        virtual void on_connection(int descriptor, uint32_t address) = 0;
    };

    // Throws std::runtime_error if another program has taken one of the ports.
    Ports();
    ~Ports();
    Ports(const Ports&) = delete;
    Ports& operator=(const Ports&) = delete;

    // Any thread may call these functions. The first wish makes a companion a member.
    void set_wish(Member& companion, Wish wish);
    // Forgets the devices that may connect because they were answered for an earlier wish.
    void begin_anew(Member& companion, Wish wish);
    // When it returns, no function of the companion is called any more.
    void leave(Member& companion);

  private:
    struct Entry {
        Member* companion;
        Wish wish;
        std::deque<uint32_t> answered;  // addresses that may connect

        int claim(const Discovery::Search& search) const;
        bool expects(uint32_t address) const;
    };

    void run();
    void receive_broadcasts();
    void accept_connection();
    Entry& entry_of(Member& companion) REQUIRES(m_mutex);
    Entry* claimant(const Discovery::Search& search) REQUIRES(m_mutex);
    bool is_claimed(const Discovery::Search& search) REQUIRES(m_mutex);
    bool several_unclaimed() REQUIRES(m_mutex);

    Discovery m_discovery;  // used only by the ports' thread
    const Descriptor m_listener;
    const Descriptor m_wake;                                   // eventfd that wakes the thread
    std::chrono::steady_clock::time_point m_next_accept = {};  // used only by the ports' thread
    Mutex m_mutex;
    std::list<Entry> m_entries GUARDED_BY(m_mutex);
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// The ports of this program, which are open as long as there is such an object.
class SharedPorts {
  public:
    SharedPorts();  // throws like Ports
    ~SharedPorts();
    SharedPorts(const SharedPorts&) = delete;
    SharedPorts& operator=(const SharedPorts&) = delete;
    Ports* operator->() const { return m_ports.get(); }

  private:
    std::shared_ptr<Ports> m_ports;
};

}  // namespace guilink
