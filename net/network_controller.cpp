#include "net/network_controller.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <list>
#include <utility>
#include <vector>

#include "base/detached_thread.h"
#include "base/mutex.h"
#include "base/write_line.h"
#include "net/admission.h"
#include "net/network_unit_v4.h"
#include "wire/ports.h"

using namespace std::chrono_literals;

namespace {

constexpr unsigned short PEER_PORT = LINK_PORT;
constexpr auto SWEEP_INTERVAL = 1s;     // pause between searches; after it, candidates are dropped
constexpr size_t MAX_CANDIDATES = 32;   // each costs a socket and a thread
constexpr size_t MAX_CONNECTING = 512;  // each costs a socket
constexpr int CONNECT_LOOK = 10;        // ms; a new connect joins the poll after this time
constexpr auto SENT_WAIT = 500ms;       // longest wait of wait_until_sent
constexpr auto SENT_LOOK = 2ms;         // pause between its looks at the socket

}  // namespace

// The controller's data. The callbacks of units share the ownership of this data, because they may
// run after the controller is destroyed.
struct NetworkController::State {
    // A list, because splice moves a unit from one list to another without allocating memory.
    using Units = std::list<std::unique_ptr<NetworkUnit>>;

    std::atomic<bool> m_stop{false};
    Mutex m_mutex;  // never held while the worker is called, a socket waits or a unit is destroyed

    Units m_connecting GUARDED_BY(m_mutex);  // units that may become candidates, the oldest first
    std::condition_variable_any m_connect_begun;
    Units m_candidates GUARDED_BY(m_mutex);  // units of peers that may become the link
    Units m_seekers GUARDED_BY(m_mutex);     // units that search the interfaces for peers
    Units m_current GUARDED_BY(m_mutex);     // the linked peer, or empty
    Units m_dropped GUARDED_BY(m_mutex);     // stopped units that wait to be destroyed
    Admission m_admission GUARDED_BY(m_mutex);

    // The unit whose bytes this thread passes to the worker; null on threads that receive nothing.
    // Answers go to this unit, so only a candidate's own thread can send to the candidate.
    static inline thread_local NetworkUnit* m_pending = nullptr;

    std::weak_ptr<NetworkWorker> m_worker;  // set once, by the constructor

    void drop(Units& from, Units::iterator unit) REQUIRES(m_mutex) {
        (*unit)->stop();
        m_dropped.splice(m_dropped.end(), from, unit);
    }
    static Units::iterator find(Units& units, const NetworkUnit* unit) {
        return std::ranges::find(units, unit, &std::unique_ptr<NetworkUnit>::get);
    }
    bool is_current(const NetworkUnit* unit) REQUIRES(m_mutex) {
        return !m_current.empty() && m_current.front().get() == unit;
    }
};

NetworkController::NetworkController(const std::shared_ptr<NetworkWorker>& worker)
    : m_state(std::make_shared<State>()) {
    m_state->m_worker = worker;
    m_worker_thread = std::thread(_worker_launcher, this);
}

NetworkController::~NetworkController() {
    State& state = *m_state;
    // Once m_stop is set, no candidate is added. But the search thread may still add units to
    // m_seekers, so join this thread before m_seekers is emptied.
    state.m_stop = true;
    _clear_all(m_state);
    {
        const Lock lock(state.m_mutex);
        state.m_connect_begun.notify_one();
        if (!state.m_current.empty()) state.drop(state.m_current, state.m_current.begin());
    }
    m_worker_thread.join();
    _clear_all(m_state);
    State::Units units;
    {
        const Lock lock(state.m_mutex);
        units.splice(units.end(), state.m_seekers);
        units.splice(units.end(), state.m_dropped);
    }
    // Destroy the units on another thread, because this thread may belong to a unit and cannot join
    // itself.
    if (!units.empty()) run_detached("destroyer", [owned = std::move(units)] {});
}

void NetworkController::_worker_launcher(NetworkController* controller) {
    pthread_setname_np(pthread_self(), "controller");
    controller->_worker_handler();
}

void NetworkController::_worker_handler() {
    const SharedState& state = m_state;
    while (!state->m_stop) {
        bool linked;
        {
            const Lock lock(state->m_mutex);
            linked = !state->m_current.empty();
            state->m_admission.begin_search();
        }
        _clear_all(state);
        _destroy_finished(state);
        if (!linked) {
            const std::shared_ptr<NetworkWorker> worker(state->m_worker);
            const auto found = [state](std::unique_ptr<NetworkUnit>&& unit) {
                _seeker_found(state, unit);
            };
            NetworkUnitV4::enumerate_interfaces(found, worker->GetIdentityFrame());
        }
        _connect_until(state, std::chrono::steady_clock::now() + SWEEP_INTERVAL);
    }
}

// Polls all connects together, so that they need no threads: a neighbour may forge any number of
// answers, and a host must keep its place until its handshake is over.
void NetworkController::_connect_until(const SharedState& state,
                                       std::chrono::steady_clock::time_point end) {
    while (!state->m_stop && std::chrono::steady_clock::now() < end) {
        std::vector<pollfd> connects;
        {
            Lock lock(state->m_mutex);
            const auto due = [&]() REQUIRES(state->m_mutex) {
                return state->m_stop || !state->m_connecting.empty();
            };
            if (!state->m_connect_begun.wait_until(lock, end, due)) return;
            for (const auto& unit : state->m_connecting) {
                connects.push_back({unit->descriptor(), POLLOUT, 0});
            }
        }
        poll(connects.data(), connects.size(), CONNECT_LOOK);
        _take_connected(state);
        _destroy_finished(state);
    }
}

// Makes candidates of the units that have connected. The oldest candidate makes room: a good
// companion becomes the link within milliseconds, so being among the newest is all it needs.
void NetworkController::_take_connected(const SharedState& state) {
    State::Units failed;  // destroyed after the lock is released
    const Lock lock(state->m_mutex);
    auto& connecting = state->m_connecting;
    for (auto unit = connecting.begin(); unit != connecting.end();) {
        const auto next = std::next(unit);
        const auto connect = (*unit)->connect_state();
        if (connect == NetworkUnit::Connect::Failed || !state->m_current.empty()) {
            failed.splice(failed.end(), connecting, unit);
        } else if (connect == NetworkUnit::Connect::Succeeded) {
            auto& candidates = state->m_candidates;
            if (candidates.size() == MAX_CANDIDATES) state->drop(candidates, candidates.begin());
            candidates.splice(candidates.end(), connecting, unit);
            // Listed first, the candidate can become the link with its first bytes.
            candidates.back()->tcp_connect(
                PEER_PORT,
                [state](const unsigned char* data, unsigned long length, NetworkUnit* from) {
                    _data_receive(state, data, length, from);
                });
        }
        unit = next;
    }
}

void NetworkController::_seeker_found(const SharedState& state,
                                      std::unique_ptr<NetworkUnit>& unit) {
    if (unit == nullptr || state->m_stop) return;
    unit->ping([state](std::unique_ptr<NetworkUnit>&& peer) { _peer_found(state, peer); });
    const Lock lock(state->m_mutex);
    state->m_seekers.push_back(std::move(unit));
}

void NetworkController::_peer_found(const SharedState& state, std::unique_ptr<NetworkUnit>& unit) {
    if (unit == nullptr) return;
    {
        const Lock lock(state->m_mutex);
        if (state->m_stop || !state->m_current.empty()) return;
        if (!state->m_admission.admit(unit->address())) return;
    }
    if (!unit->begin_connect(PEER_PORT)) return;
    State::Units oldest;  // destroyed after the lock is released
    const Lock lock(state->m_mutex);
    if (state->m_stop || !state->m_current.empty()) return;
    auto& connecting = state->m_connecting;
    if (connecting.size() == MAX_CONNECTING) {
        oldest.splice(oldest.end(), connecting, connecting.begin());
    }
    connecting.push_back(std::move(unit));
    state->m_connect_begun.notify_one();
}

void NetworkController::_data_receive(const SharedState& state, const unsigned char* data,
                                      uint64_t length, NetworkUnit* unit) {
    // If an exception ends the link's receive thread, drop the link, because no other thread reads
    // the link's bytes.
    struct Guard {
        const SharedState& state;
        const NetworkUnit* unit;
        const int exceptions = std::uncaught_exceptions();
        ~Guard() {
            if (std::uncaught_exceptions() > exceptions) _clear_current(state, unit);
        }
    } const guard{state, unit};
    const std::shared_ptr<NetworkWorker> worker = state->m_worker.lock();
    bool linked;
    {
        const Lock lock(state->m_mutex);
        linked = state->is_current(unit);
        if (!linked && !state->m_current.empty()) return;
    }
    if (linked && length == 0) {
        _clear_current(state, unit);
        return;
    }
    if (worker == nullptr) return;
    const auto signal = [&state, unit] {
        write_line(STDOUT_FILENO, "connected");
        _set_current(state, unit);
    };
    State::m_pending = unit;
    worker->OnDataReceived(data, length, linked ? std::function<void()>() : signal, linked);
}

bool NetworkController::connection_dropped() {
    return State::m_pending != nullptr && State::m_pending->stopped();
}

void NetworkController::_set_current(const SharedState& state, const NetworkUnit* unit) {
    {
        const Lock lock(state->m_mutex);
        auto& candidates = state->m_candidates;
        const auto node = State::find(candidates, unit);
        // A candidate that was dropped cannot become the link.
        if (node == candidates.end() || unit->stopped()) return;
        auto& current = state->m_current;
        if (!current.empty()) state->drop(current, current.begin());
        current.splice(current.end(), candidates, node);
    }
    _clear_all(state);
}

void NetworkController::send(const unsigned char* data, uint64_t length) {
    State& state = *m_state;
    const Lock lock(state.m_mutex);
    NetworkUnit* const pending = State::m_pending;
    auto& current = state.m_current;
    if (pending == nullptr || state.is_current(pending)) {
        if (current.empty() || current.front()->send(data, length)) return;
        state.drop(current, current.begin());
    } else if (!pending->send_at_once(data, length)) {
        pending->stop();  // the candidate's thread then ends, and the candidate with it
    }
}

bool NetworkController::wait_until_sent() {
    State& state = *m_state;
    const auto end = std::chrono::steady_clock::now() + SENT_WAIT;
    do {
        {
            const Lock lock(state.m_mutex);
            auto& current = state.m_current;
            if (current.empty()) return true;
            const auto progress = current.front()->flush();
            if (progress == NetworkUnit::Progress::Stalled) state.drop(current, current.begin());
            if (progress != NetworkUnit::Progress::Sending) return true;
        }
        std::this_thread::sleep_for(SENT_LOOK);
    } while (std::chrono::steady_clock::now() < end);
    return false;
}

// Drops the link if `unit` is still the linked peer.
void NetworkController::_clear_current(const SharedState& state, const NetworkUnit* unit) {
    const Lock lock(state->m_mutex);
    auto& current = state->m_current;
    if (!current.empty() && current.front().get() == unit) state->drop(current, current.begin());
}

// Drops all candidates, and all connects. Does not end the searches (m_seekers), because all
// searches share a port, so an old search may receive the answer to a newer broadcast.
void NetworkController::_clear_all(const SharedState& state) {
    State::Units connecting;  // destroyed after the lock is released
    const Lock lock(state->m_mutex);
    connecting.splice(connecting.end(), state->m_connecting);
    while (!state->m_candidates.empty()) {
        state->drop(state->m_candidates, state->m_candidates.begin());
    }
}

// Destroys the units whose threads have ended.
void NetworkController::_destroy_finished(const SharedState& state) {
    State::Units finished;  // destroyed after the lock is released
    const Lock lock(state->m_mutex);
    for (auto* const units : {&state->m_seekers, &state->m_candidates, &state->m_dropped}) {
        for (auto unit = units->begin(); unit != units->end();) {
            const auto next = std::next(unit);
            if ((*unit)->finished()) finished.splice(finished.end(), *units, unit);
            unit = next;
        }
    }
}
