#include "devkit/companion/outbox.h"

#include <utility>

namespace guilink {

namespace {

constexpr size_t MAX_WAITING = 256;  // queued messages

}  // namespace

bool Outbox::add(Message message) {
    const Lock lock(m_mutex);
    if (m_waiting.size() == MAX_WAITING) return false;
    m_waiting.push_back(std::move(message));
    return true;
}

void Outbox::send(Connection& link) {
    const Lock lock(m_mutex);
    while (!m_waiting.empty() && !link.wants_to_write() && !link.ended()) {
        Message& message = m_waiting.front();
        link.send(message.type, message.payload);
        if (message.delivered) {
            link.ask();
            m_sent.push_back({link.asked, std::move(message.delivered)});
        }
        m_waiting.pop_front();
    }
}

void Outbox::refuse() {
    std::vector<Companion::DeliveryHandler> refused;
    {
        const Lock lock(m_mutex);
        for (Message& message : m_waiting) {
            if (message.delivered) refused.push_back(message.delivered);
        }
        std::erase_if(m_waiting, [](const Message& message) { return !!message.delivered; });
    }
    for (const auto& delivered : refused) delivered(Delivery::refused);
}

void Outbox::end_sent(uint64_t last_identity_request, Delivery delivery) {
    while (!m_sent.empty() && m_sent.front().identity_request <= last_identity_request) {
        const auto delivered = std::move(m_sent.front().delivered);
        m_sent.pop_front();
        delivered(delivery);
    }
}

}  // namespace guilink
