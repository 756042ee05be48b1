// Keeps the device linked to exactly one peer. While the device is not linked, a discovery sweep
// begins about once a second on every interface. Every host that answers becomes a candidate: a
// network unit opens a TCP connection to the host, and the controller passes the received bytes to
// the worker (the link protocol). When the worker accepts a candidate, the candidate's unit becomes
// the current unit, and all other candidates are dropped. A failed send or the end of the
// connection drops the current unit and the data being sent; then the search begins again.
//
// A dropped unit is stopped at once, but destroyed only when its threads have ended, so that
// nothing waits for the unit and no thread joins itself. A unit's callbacks may run after the
// controller is destroyed, so they use only the State below, whose ownership they share.
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
        // Called with bytes that have arrived on the connection of the calling thread. The bytes
        // are valid only during the call. To make this connection the link, the worker calls
        // `signal`, unless `signal` is empty. If `deliver_all` is false, only keep-alives reach the
        // message handler. A length of 0 means that the connection of a candidate has ended. Called
        // on several threads.
        virtual void OnDataReceived(const unsigned char* data, uint64_t length,
                                    const std::function<void()>& signal, bool deliver_all) = 0;
        // Sets the controller through which the worker sends. The worker keeps a weak pointer.
        virtual void SetController(const std::shared_ptr<NetworkController>& controller) = 0;
        // Installs the handler that is called with the type and the payload of each message from
        // the peer.
        virtual void SetMessageHandler(
            const std::function<void(uint16_t, std::vector<unsigned char>)>& handler) = 0;
        virtual void SendIdentity() = 0;
        virtual void SendData(const unsigned char* data, uint64_t length) = 0;
        virtual void SendImage(const uint16_t* pixels, uint16_t width, uint16_t height) = 0;
        // Returns the datagram that discovery broadcasts.
        virtual std::vector<unsigned char> GetIdentityFrame() = 0;
        virtual ~NetworkWorker() = default;
        // Called after the connection of the calling thread has ended. The calling thread will pass
        // no more bytes to the worker.
        virtual void OnConnectionEnd() {}
    };

    // Starts to search at once. Keeps a weak pointer to the worker. The worker must outlive the
    // controller.
    explicit NetworkController(const std::shared_ptr<NetworkWorker>& worker);
    // Drops all units. Waits for a send that is in progress (see send), and then up to 1 s for the
    // search thread.
    virtual ~NetworkController();

    NetworkController(const NetworkController&) = delete;
    NetworkController& operator=(const NetworkController&) = delete;

    // Sends to the linked peer. Without a link, sends to the candidate that is being examined, or
    // drops the data if no candidate is being examined. Waits for an earlier send to end, then
    // blocks for at most 6 s. Drops the linked peer if its socket has not accepted all the data by
    // then. Never blocks on a candidate: drops a candidate whose socket has no room for all the
    // data.
    void send(const unsigned char* data, uint64_t length);

    // Waits until the send buffer of the link is nearly empty, because newer data cannot replace
    // data in this buffer. Waits at most 3 s, and holds no lock meanwhile. If the buffer is then
    // still not nearly empty, returns false if some of its data was sent meanwhile, or drops the
    // peer and returns true if no data was sent. In all other cases, returns true.
    bool wait_until_sent();

  private:
    struct State;
    using SharedState = std::shared_ptr<State>;

    static void _worker_launcher(NetworkController* controller);
    void _worker_handler();
    static void _seeker_found(const SharedState& state, std::unique_ptr<NetworkUnit>& unit);
    static void _peer_found(const SharedState& state, std::unique_ptr<NetworkUnit>& unit);
    static void _clear_all(const SharedState& state);
    static void _clear_current(const SharedState& state, const NetworkUnit* unit);
    static void _destroy_stopped(const SharedState& state);
    static void _data_receive(const SharedState& state, const unsigned char* data, uint64_t length,
                              NetworkUnit* unit);
    static void _examine(const SharedState& state, const unsigned char* data, uint64_t length,
                         NetworkUnit* unit, NetworkWorker& worker);
    static void _set_current(const SharedState& state, const NetworkUnit* unit);

    const SharedState m_state;
    std::thread m_worker_thread;  // the search thread of the controller, not of the worker
};
