// Keeps the device linked to exactly one peer. While none is linked, a discovery sweep runs about
// once a second on every interface, and every host that answers becomes a candidate: it is given a
// TCP connection, and its bytes are shown to the worker (the link protocol) until the worker
// accepts one. That one becomes current, all others are dropped. A failed send or the end of its
// connection drops the current one, what was being sent is lost, and the search begins again.
//
// Units are destroyed on detached threads, since they are dropped from their own threads and take
// seconds to stop. Their callbacks may thus come after the controller: they share the state below
// and never touch the controller itself.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

class NetworkUnit;

class NetworkController {
  public:
    // The link protocol, as the controller sees it.
    class NetworkWorker {
      public:
        // Takes count bytes that a connection received, valid only during the call; a count of 0 is
        // its end. signal, where not empty, makes that connection the link. With deliver_all false
        // only keep-alives reach the message handler. Called from several threads, without any
        // lock.
        virtual void OnDataReceived(const unsigned char* data, uint64_t length,
                                    const std::function<void()>& signal, bool deliver_all) = 0;
        // Keeps a weak pointer to where everything is sent.
        virtual void SetController(const std::shared_ptr<NetworkController>& controller) = 0;
        // Installs what takes the messages of the peer: type and payload.
        virtual void SetMessageHandler(
            const std::function<void(uint16_t, std::vector<unsigned char>)>& handler) = 0;
        virtual void SendIdentity() = 0;
        virtual void SendData(const unsigned char* data, uint64_t length) = 0;
        virtual void SendImage(const uint16_t* pixels, uint16_t width, uint16_t height) = 0;
        // The payload of discovery.
        virtual std::vector<unsigned char> GetIdentityFrame() = 0;
        virtual ~NetworkWorker() = default;
    };

    // Starts to search at once. The worker is kept as a weak pointer and must outlive the
    // controller.
    explicit NetworkController(const std::shared_ptr<NetworkWorker>& worker);
    // Drops all units and waits for the search to pause, which it does once a second.
    virtual ~NetworkController();

    NetworkController(const NetworkController&) = delete;
    NetworkController& operator=(const NetworkController&) = delete;

    // Sends to the linked peer, or else answers the candidate whose bytes the worker is examining,
    // or else drops the data. Blocks for 6 s at most, once a send under way is done; a peer that
    // fails to take the data by then is dropped.
    void send(const unsigned char* data, uint64_t length);

  private:
    struct State;
    using SharedState = std::shared_ptr<State>;

    static void _worker_launcher(NetworkController* controller);
    void _worker_handler();
    static void _seeker_found(const SharedState& state, std::unique_ptr<NetworkUnit>& unit);
    static void _peer_found(const SharedState& state, std::unique_ptr<NetworkUnit>& unit);
    static void _clear_all(const SharedState& state);
    static void _clear_current(const SharedState& state);
    static void _data_receive(const SharedState& state, const unsigned char* data, uint64_t length,
                              NetworkUnit* unit);
    static void _set_current(const SharedState& state, NetworkUnit* unit);

    const SharedState m_state;
    std::thread m_worker_thread;
};
