// Limits the clients' connections, so that the descriptors suffice and no sender takes all of them.
// When there is no room for a new connection, closes an idle one.
#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>

namespace guilink {

class Connections {
  public:
    static constexpr size_t MAX = 512;  // leaves descriptors for the link to the device
    static constexpr size_t MAX_OF_ONE_SENDER = 64;

    // The place of one connection. Must not outlive the Connections.
    class Place {
      public:
        Place(Connections& all, std::string sender);
        ~Place() { m_all.m_places.remove(this); }
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        // From now on, the connection is idle: `close` may be called, once.
        void rest(std::function<void()> close);
        void work() { m_close = nullptr; }

      private:
        friend Connections;

        Connections& m_all;
        const std::string m_sender;
        std::function<void()> m_close;  // empty while the connection is not idle
    };

    // Returns null if there is no room: too many connections, and none that matters is idle.
    std::unique_ptr<Place> enter(const std::string& sender);

  private:
    bool make_room(const std::function<bool(const Place*)>& matters);

    std::list<Place*> m_places;  // the one that has been idle longest comes first
};

}  // namespace guilink
