// The presses and texts on their way to the device, and what becomes of them.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "base/mutex.h"
#include "devkit/companion/connection.h"
#include "guilink/companion.h"

namespace guilink {

class Outbox {
  public:
    struct Message {
        uint16_t type;
        std::vector<unsigned char> payload;
        Companion::DeliveryHandler delivered;  // may be empty
    };

    // Returns false if the queue is full. Any thread may call this function; only the companion's
    // thread may call the others, which call the handlers.
    bool add(Message message);

    // Sends queued messages until the socket accepts no more. The remaining messages stay queued.
    void send(Connection& link);
    // Refuses the queued messages that have a handler. Messages without a handler stay queued until
    // there is a link.
    void refuse();
    // Confirms the messages that were sent before the link's last answered identity request.
    void confirm(const Connection& link) { end_sent(link.answered, Delivery::confirmed); }
    // The link has ended, so nobody knows whether the messages that were sent have arrived.
    void forget() { end_sent(UINT64_MAX, Delivery::unknown); }

    bool unconfirmed() const { return !m_sent.empty(); }

  private:
    struct Sent {
        uint64_t identity_request;  // number of the request whose answer confirms the message
        Companion::DeliveryHandler delivered;
    };
    void end_sent(uint64_t last_identity_request, Delivery delivery);

    std::deque<Sent> m_sent;  // used only by the companion's thread
    Mutex m_mutex;
    std::deque<Message> m_waiting GUARDED_BY(m_mutex);
};

}  // namespace guilink
