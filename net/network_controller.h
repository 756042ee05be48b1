// Keeps the device linked to exactly one peer. While none is linked, a discovery sweep runs about
// once a second on every interface, and every host that answers becomes a candidate: it gets a TCP
// connection, and its bytes go to the worker (the link protocol) until the worker accepts one. That
// one becomes current, all others are dropped. A failed send or the end of its connection drops the
// current one; what was being sent is lost, and the search begins again.
//
// A dropped unit is asked to stop at once. It is destroyed when its threads have ended, so that
// nobody waits for it and no thread joins itself. Its callbacks may come after the controller's
// end: they share the state below and never touch the controller.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

class NetworkUnit;

class NetworkController {
  public:
    // The link protocol, as the controller sees it: the worker does something useful with bytes.
    // (The thread that searches is the controller's own and has nothing to do with it.)
    class NetworkWorker {
      public:
        // Receives bytes of the calling thread's connection, valid only during the call. signal, if
        // not empty, makes that connection the link. With deliver_all false only keep-alives reach
        // the message handler. A length of 0 is the end of a candidate's connection. Called from
        // several threads.
        virtual void OnDataReceived(const unsigned char* data, uint64_t length,
                                    const std::function<void()>& signal, bool deliver_all) = 0;
        // Keeps a weak pointer to where everything is sent.
        virtual void SetController(const std::shared_ptr<NetworkController>& controller) = 0;
        // Installs the handler of the peer's messages: type and payload.
        virtual void SetMessageHandler(
            const std::function<void(uint16_t, std::vector<unsigned char>)>& handler) = 0;
        virtual void SendIdentity() = 0;
        virtual void SendData(const unsigned char* data, uint64_t length) = 0;
        virtual void SendImage(const uint16_t* pixels, uint16_t width, uint16_t height) = 0;
        // The payload of discovery.
        virtual std::vector<unsigned char> GetIdentityFrame() = 0;
        virtual ~NetworkWorker() = default;
        // The calling thread's connection has ended: nothing more will come from this thread.
        virtual void OnConnectionEnd() {}
    };

    // Starts to search at once. The worker is kept as a weak pointer and must outlive the
    // controller.
    explicit NetworkController(const std::shared_ptr<NetworkWorker>& worker);
    // Drops all units; waits up to 1 s for the searching thread, and for a send under way.
    virtual ~NetworkController();

    NetworkController(const NetworkController&) = delete;
    NetworkController& operator=(const NetworkController&) = delete;

    // Sends to the linked peer, or else to the candidate whose bytes the worker is examining, or
    // else drops the data. Blocks for at most 6 s, after a send under way; a peer that has not
    // taken the data by then is dropped. A candidate that has no room for all of it is dropped at
    // once.
    void send(const unsigned char* data, uint64_t length);

    // Waits until the linked peer's connection has sent nearly all that it was given: what waits in
    // the send buffer cannot be replaced by anything newer. Holds nobody else up. Blocks for at
    // most 3 s: then returns false if it is still sending, and drops a peer to which it could send
    // nothing.
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
    std::thread m_worker_thread;
};
