#include "net/network_controller.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <map>
#include <utility>

#include "base/detached_thread.h"
#include "base/mutex.h"
#include "base/write_line.h"
#include "net/network_unit_v4.h"
#include "wire/ports.h"

using namespace std::chrono_literals;

namespace {

constexpr unsigned short PEER_PORT = LINK_PORT;
constexpr auto SWEEP_INTERVAL = 1s;    // pause between searches; after it, candidates are dropped
constexpr size_t MAX_CANDIDATES = 32;  // each costs a socket and a thread
constexpr ptrdiff_t MAX_TURNS_OF_HOST = 8;  // connections to one host during a sweep (search)
constexpr size_t MAX_HOSTS = 1024;  // limit of m_turns; further hosts wait for the next sweep
constexpr unsigned SWEEPS_REMEMBERED = 60;     // after this many sweeps, m_turns is cleared
constexpr uint64_t EXAMINED_AT_ONCE = 0x4000;  // bytes; size of a portion (see _examine)

// Counts how often a host has become a candidate since the last link, and how often in the current
// sweep.
struct Turns {
    unsigned since_link = 0;
    unsigned in_sweep = 0;
};

// Reports to the worker that a connection has ended. The connection's callback holds a
// ConnectionEnd, and the receive thread destroys its copy of this callback when the connection
// ends. Other threads destroy copies, too, but the worker ignores reports from threads that have
// passed no bytes to it.
struct ConnectionEnd {
    std::weak_ptr<NetworkController::NetworkWorker> worker;

    ~ConnectionEnd() {
        if (const auto shared = worker.lock()) shared->OnConnectionEnd();
    }
};

}  // namespace

// The controller's data. The callbacks of units share the ownership of this data, because they may
// run after the controller is destroyed.
struct NetworkController::State {
    // A list, because splice moves a unit from one list to another without allocating memory.
    using Units = std::list<std::unique_ptr<NetworkUnit>>;

    std::atomic<bool> m_stop{false};
    Mutex m_mutex;  // never held while the worker is called or a unit is destroyed

    Units m_candidates GUARDED_BY(m_mutex);       // units of peers that may become the link
    Units m_seekers GUARDED_BY(m_mutex);          // units that search the interfaces for peers
    Units m_current GUARDED_BY(m_mutex);          // the linked peer, or empty
    Units m_dropped GUARDED_BY(m_mutex);          // stopped units that wait to be destroyed
    size_t m_connecting GUARDED_BY(m_mutex) = 0;  // peers admitted, but not yet in m_candidates
    std::map<uint32_t, Turns> m_turns GUARDED_BY(m_mutex);

    // Candidates are examined one at a time, in the order of their tickets.
    uint64_t m_last_ticket GUARDED_BY(m_mutex) = 0;
    uint64_t m_examined_ticket GUARDED_BY(m_mutex) = 1;
    std::condition_variable_any m_next_examination;
    NetworkUnit* m_pending GUARDED_BY(m_mutex) = nullptr;  // the candidate being examined

    std::weak_ptr<NetworkWorker> m_worker;  // set once, by the constructor

    void drop(Units& from, Units::iterator unit) REQUIRES(m_mutex) {
        (*unit)->stop();
        m_dropped.splice(m_dropped.end(), from, unit);
    }
    static Units::iterator find(Units& units, const NetworkUnit* unit) {
        return std::ranges::find(units, unit, &std::unique_ptr<NetworkUnit>::get);
    }
    // Returns false if `unit` has been dropped or another unit is linked.
    bool may_speak(const NetworkUnit* unit) EXCLUDES(m_mutex) {
        const Lock lock(m_mutex);
        return find(m_dropped, unit) == m_dropped.end() &&
               (m_current.empty() || m_current.front().get() == unit);
    }
    bool admit(uint32_t host) REQUIRES(m_mutex);
};

// Returns whether `host` may become a candidate; if so, counts this in m_turns. If there are
// already MAX_CANDIDATES, drops a candidate of the host that has been a candidate most often, but
// only if `host` has been one less often. Drops an unconnected candidate rather than a connected
// one, because the answer of an unconnected host may have been spoofed.
bool NetworkController::State::admit(uint32_t host) {
    if (m_turns.size() >= MAX_HOSTS && !m_turns.contains(host)) return false;
    Turns& turns = m_turns[host];
    const auto is_of_host = [host](const auto& unit) { return unit->address() == host; };
    const auto ending = std::ranges::count_if(m_dropped, is_of_host);
    if (turns.in_sweep + ending >= MAX_TURNS_OF_HOST || m_dropped.size() >= MAX_CANDIDATES) {
        return false;
    }
    if (m_candidates.size() + m_connecting >= MAX_CANDIDATES) {
        const auto turns_of = [this](const auto& unit) REQUIRES(m_mutex) {
            return std::pair(m_turns[unit->address()].since_link, !unit->connected());
        };
        const auto most = std::ranges::max_element(m_candidates, {}, turns_of);
        if (most == m_candidates.end() || turns_of(*most).first <= turns.since_link) return false;
        drop(m_candidates, most);
    }
    ++turns.since_link;
    ++turns.in_sweep;
    return true;
}

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
    unsigned sweeps = 0;
    while (!state->m_stop) {
        bool linked;
        {
            const Lock lock(state->m_mutex);
            linked = !state->m_current.empty();
            if (state->m_turns.size() >= MAX_HOSTS || ++sweeps % SWEEPS_REMEMBERED == 0) {
                state->m_turns.clear();
            }
            for (auto& [host, turns] : state->m_turns) turns.in_sweep = 0;
        }
        _clear_all(state);
        _destroy_stopped(state);
        if (!linked) {
            const std::shared_ptr<NetworkWorker> worker(state->m_worker);
            const auto found = [state](std::unique_ptr<NetworkUnit>&& unit) {
                _seeker_found(state, unit);
            };
            NetworkUnitV4::enumerate_interfaces(found, worker->GetIdentityFrame());
        }
        std::this_thread::sleep_for(SWEEP_INTERVAL);
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
    _destroy_stopped(state);  // removes candidates whose connection has failed
    {
        const Lock lock(state->m_mutex);
        if (state->m_stop || !state->m_current.empty() || !state->admit(unit->address())) return;
        ++state->m_connecting;
    }
    unit->tcp_connect(PEER_PORT,
                      [state, end = ConnectionEnd{state->m_worker}](
                          const unsigned char* data, unsigned long length, NetworkUnit* from) {
                          _data_receive(state, data, length, from);
                      });
    const Lock lock(state->m_mutex);
    --state->m_connecting;
    if (!state->m_stop) state->m_candidates.push_back(std::move(unit));
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
    {
        Lock lock(state->m_mutex);
        if (state->m_current.empty()) {
            lock.unlock();
            if (worker != nullptr) _examine(state, data, length, unit, *worker);
            return;
        }
        if (state->m_current.front().get() != unit) return;
    }
    if (length == 0) {
        _clear_current(state, unit);
    } else if (worker != nullptr) {
        worker->OnDataReceived(data, length, {}, true);
    }
}

// Passes a candidate's bytes to the worker in small portions, so that no other candidate waits
// long. Examines one portion at a time, because `send` sends the worker's answers to m_pending, the
// one candidate that is being examined.
void NetworkController::_examine(const SharedState& state, const unsigned char* data,
                                 uint64_t length, NetworkUnit* unit, NetworkWorker& worker) {
    // The destructor ends the examination even after an exception, so that the next candidate does
    // not wait for ever.
    class Examination {
      public:
        Examination(State& state, NetworkUnit* unit) : m_state(state) {
            Lock lock(state.m_mutex);
            const uint64_t ticket = ++state.m_last_ticket;
            state.m_next_examination.wait(
                lock, [&]() REQUIRES(state.m_mutex) { return state.m_examined_ticket == ticket; });
            state.m_pending = unit;
        }
        ~Examination() {
            const Lock lock(m_state.m_mutex);
            m_state.m_pending = nullptr;
            ++m_state.m_examined_ticket;
            m_state.m_next_examination.notify_all();
        }

      private:
        State& m_state;
    };
    const auto signal = [&state, unit] {
        write_line(STDOUT_FILENO, "connected");
        _set_current(state, unit);
    };
    do {
        const uint64_t portion = std::min(length, EXAMINED_AT_ONCE);
        const Examination examination(*state, unit);
        if (!state->may_speak(unit)) return;
        worker.OnDataReceived(data, portion, signal, false);
        data += portion;
        length -= portion;
    } while (length != 0);
}

void NetworkController::_set_current(const SharedState& state, const NetworkUnit* unit) {
    {
        const Lock lock(state->m_mutex);
        auto& candidates = state->m_candidates;
        const auto node = State::find(candidates, unit);
        // A candidate that is not in the list yet, or was dropped, cannot become the link.
        if (node == candidates.end() || !unit->connected()) return;
        auto& current = state->m_current;
        if (!current.empty()) state->drop(current, current.begin());
        current.splice(current.end(), candidates, node);
        state->m_turns.clear();
    }
    _clear_all(state);
}

void NetworkController::send(const unsigned char* data, uint64_t length) {
    State& state = *m_state;
    const Lock lock(state.m_mutex);
    if (!state.m_current.empty()) {
        const auto unit = state.m_current.begin();
        if (!(*unit)->send(data, length)) state.drop(state.m_current, unit);
    } else if (state.m_pending != nullptr && !state.m_pending->send_at_once(data, length)) {
        auto& candidates = state.m_candidates;
        const auto node = State::find(candidates, state.m_pending);
        node != candidates.end() ? state.drop(candidates, node) : state.m_pending->stop();
    }
}

bool NetworkController::wait_until_sent() {
    State& state = *m_state;
    std::shared_ptr<const NetSocket<>> socket;
    {
        const Lock lock(state.m_mutex);
        if (!state.m_current.empty()) socket = state.m_current.front()->socket();
    }
    if (socket == nullptr) return true;
    const auto progress = NetworkUnitV4::wait_until_sent(*socket);
    if (progress != NetworkUnitV4::Progress::Stalled) {
        return progress == NetworkUnitV4::Progress::Sent;
    }
    const Lock lock(state.m_mutex);
    const auto unit = state.m_current.begin();
    if (!state.m_current.empty() && (*unit)->socket() == socket) state.drop(state.m_current, unit);
    return true;
}

// Drops the link if `unit` is still the linked peer.
void NetworkController::_clear_current(const SharedState& state, const NetworkUnit* unit) {
    const Lock lock(state->m_mutex);
    auto& current = state->m_current;
    if (!current.empty() && current.front().get() == unit) state->drop(current, current.begin());
}

// Drops all candidates. Does not end the searches (m_seekers), because all searches share a port,
// so an old search may receive the answer to a newer broadcast.
void NetworkController::_clear_all(const SharedState& state) {
    const Lock lock(state->m_mutex);
    while (!state->m_candidates.empty()) {
        state->drop(state->m_candidates, state->m_candidates.begin());
    }
}

// Destroys the units whose threads have ended.
void NetworkController::_destroy_stopped(const SharedState& state) {
    State::Units stopped;  // destroyed after the lock is released
    const Lock lock(state->m_mutex);
    for (auto* const units : {&state->m_seekers, &state->m_candidates, &state->m_dropped}) {
        for (auto unit = units->begin(); unit != units->end();) {
            const auto next = std::next(unit);
            if ((*unit)->stopped()) stopped.splice(stopped.end(), *units, unit);
            unit = next;
        }
    }
}
