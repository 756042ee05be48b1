// Keeps the device linked to one peer. Without a link, the controller begins to search every
// network interface about once a second (a sweep). A network unit connects by TCP to each host that
// answers. Once connected, it is a candidate, and the controller passes the received bytes to the
// worker (the link protocol). When the worker accepts a candidate, its unit becomes the link, and
// the controller drops all other candidates. If a send fails or the connection ends, the controller
// drops the link and the data being sent, and searches again.
//
// A dropped unit is stopped at once, but destroyed only after its threads have ended, so that
// nothing waits for these threads. A unit's callbacks may run after the controller is destroyed. So
// they share the ownership of State, and use nothing else of the controller.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

class NetworkUnit;

class NetworkController {
  public:
    // The interface through which the controller uses the link protocol.
    class NetworkWorker {
      public:
        // Handles bytes that have arrived on the connection of the calling thread. `data` is valid
        // only during the call. If the connection is a candidate, the worker can make it the link
        // by calling `signal`, and a length of 0 means that the connection has ended. If the
        // connection is the link, `signal` is empty. If `deliver_all` is false, the worker passes
        // only keep-alives to the message handler. Several threads may call this function at once.
        virtual void OnDataReceived(const unsigned char* data, uint64_t length,
                                    const std::function<void()>& signal, bool deliver_all) = 0;
        // Sets the controller through which the worker sends. The worker keeps a weak pointer.
        virtual void SetController(const std::shared_ptr<NetworkController>& controller) = 0;
        // Sets the handler of the peer's messages. The handler gets the type and the payload of
        // each message.
        virtual void SetMessageHandler(
            const std::function<void(uint16_t, std::vector<unsigned char>)>& handler) = 0;
        virtual void SendIdentity() = 0;
        virtual void SendData(const unsigned char* data, uint64_t length) = 0;
        virtual void SendImage(const uint16_t* pixels, uint16_t width, uint16_t height) = 0;
        // Returns the datagram that discovery broadcasts.
        virtual std::vector<unsigned char> GetIdentityFrame() = 0;
        virtual ~NetworkWorker() = default;
    };

    // Starts to search at once. `worker` must outlive the controller, because the controller keeps
    // only a weak pointer.
    explicit NetworkController(const std::shared_ptr<NetworkWorker>& worker);
    // Closes all connections. Waits up to 1 s for the search thread.
    virtual ~NetworkController();

    NetworkController(const NetworkController&) = delete;
    NetworkController& operator=(const NetworkController&) = delete;

    // Sends to the linked peer, or does nothing without a link. On a thread that is in
    // OnDataReceived, sends to the peer whose bytes are being handled. Never blocks: what the
    // link's socket does not accept is queued behind what is already queued. Drops a link whose
    // queue is full, and a candidate whose socket does not accept all the data.
    void send(const unsigned char* data, uint64_t length);

    // Sends what is queued for the link, and waits up to 500 ms until all but an incomplete segment
    // has left, because newer data cannot replace data that was sent. Returns whether it has left,
    // or there is no link. Drops a link on which nothing has left for 3 s.
    bool wait_until_sent();

    // Returns whether the calling thread is in OnDataReceived for a connection that was dropped
    // meanwhile, so that the rest of its bytes means nothing.
    static bool connection_dropped();

  private:
    struct State;
    using SharedState = std::shared_ptr<State>;

    static void _worker_launcher(NetworkController* controller);
    void _worker_handler();
    static void _seeker_found(const SharedState& state, std::unique_ptr<NetworkUnit>& unit);
    static void _connect_until(const SharedState& state, std::chrono::steady_clock::time_point end);
    static void _take_connected(const SharedState& state);
    static void _peer_found(const SharedState& state, std::unique_ptr<NetworkUnit>& unit);
    static void _clear_all(const SharedState& state);
    static void _clear_current(const SharedState& state, const NetworkUnit* unit);
    static void _destroy_finished(const SharedState& state);
    static void _data_receive(const SharedState& state, const unsigned char* data, uint64_t length,
                              NetworkUnit* unit);
    static void _set_current(const SharedState& state, const NetworkUnit* unit);

    const SharedState m_state;
    std::thread m_worker_thread;  // runs the searches; has nothing to do with NetworkWorker
};
