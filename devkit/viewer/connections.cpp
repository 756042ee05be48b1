#include "devkit/viewer/connections.h"

#include <algorithm>
#include <utility>

namespace guilink {

Connections::Place::Place(Connections& all, std::string sender)
    : m_all(all), m_sender(std::move(sender)) {
    m_all.m_places.push_back(this);
}

void Connections::Place::rest(std::function<void()> close) {
    if (m_all.m_places.remove(this) == 0) return;  // already closed
    m_all.m_places.push_back(this);
    m_close = std::move(close);
}

std::unique_ptr<Connections::Place> Connections::enter(const std::string& sender) {
    const auto same = [&](const Place* place) { return place->m_sender == sender; };
    const auto any = [](const Place*) { return true; };
    const auto of_sender = static_cast<size_t>(std::ranges::count_if(m_places, same));
    if (of_sender >= MAX_OF_ONE_SENDER && !make_room(same)) return nullptr;
    if (m_places.size() >= MAX && !make_room(any)) return nullptr;
    return std::make_unique<Place>(*this, sender);
}

bool Connections::make_room(const std::function<bool(const Place*)>& matters) {
    const auto idle = std::ranges::find_if(
        m_places, [&](const Place* place) { return place->m_close && matters(place); });
    if (idle == m_places.end()) return false;
    Place* const place = *idle;
    m_places.erase(idle);
    std::exchange(place->m_close, nullptr)();
    return true;
}

}  // namespace guilink
