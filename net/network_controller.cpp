#include "net/network_controller.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <list>
#include <mutex>
#include <set>
#include <utility>

#include "base/write_line.h"
#include "net/network_unit_v4.h"

using namespace std::chrono_literals;

namespace {

constexpr unsigned short PEER_PORT = 8399;    // TCP, where a companion listens
constexpr auto SWEEP_INTERVAL = 1s;           // a candidate has about this long to be accepted
constexpr size_t MAX_CANDIDATES = 32;         // each costs a socket and a thread
constexpr size_t MAX_CANDIDATES_OF_HOST = 8;  // no host alone can keep the others out

// Never on the caller's thread: it may be one of the units' own, and none may wait for itself.
// Where no thread is to be had the process ends, with all units as they are: a receive thread would
// drop the exception, destroy them itself and leave a link that hears nothing and is never given
// up.
template <typename Destroy>
void destroy_aside(Destroy destroy) noexcept {
    auto* const owned = std::make_unique<Destroy>(std::move(destroy)).release();  // by the thread
    std::thread([owned] {
        pthread_setname_np(pthread_self(), "destroyer");
        const std::unique_ptr<Destroy> owner(owned);
        (*owner)();
    }).detach();
}

}  // namespace

// What the units' callbacks work on, for as long as they run.
struct NetworkController::State {
    using Units = std::list<std::unique_ptr<NetworkUnit>>;

    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;  // guards all below but m_worker; never held while the worker is called

    Units m_candidates;                         // peers of the current sweep, each told to connect
    Units m_seekers;                            // the interfaces of the current sweep
    std::multiset<uint32_t> m_candidate_hosts;  // of those listed, about to be or being destroyed
    std::unique_ptr<NetworkUnit> m_current;
    NetworkUnit* m_pending = nullptr;  // whose bytes the worker is examining at this moment

    std::weak_ptr<NetworkWorker> m_worker;
};

NetworkController::NetworkController(const std::shared_ptr<NetworkWorker>& worker)
    : m_state(std::make_shared<State>()) {
    m_state->m_worker = worker;
    m_worker_thread = std::thread(_worker_launcher, this);
}

NetworkController::~NetworkController() {
    // From the flag on only the worker lists units, those of a sweep in progress. None is left once
    // these are cleared, too, and no unit keeps the state, which its own callbacks share, alive.
    m_state->m_stop = true;
    _clear_all(m_state);
    _clear_current(m_state);
    m_worker_thread.join();
    _clear_all(m_state);
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
            const std::lock_guard lock(state->m_mutex);
            linked = state->m_current != nullptr;
        }
        _clear_all(state);
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
    const std::lock_guard lock(state->m_mutex);
    state->m_seekers.push_back(std::move(unit));
}

void NetworkController::_peer_found(const SharedState& state, std::unique_ptr<NetworkUnit>& unit) {
    if (unit == nullptr) return;
    {
        const std::lock_guard lock(state->m_mutex);
        auto& hosts = state->m_candidate_hosts;
        if (state->m_stop || hosts.size() == MAX_CANDIDATES ||
            hosts.count(unit->address()) == MAX_CANDIDATES_OF_HOST) {
            return;
        }
        hosts.insert(unit->address());
    }
    unit->tcp_connect(PEER_PORT,
                      [state](const unsigned char* data, unsigned long length, NetworkUnit* from) {
                          _data_receive(state, data, length, from);
                      });
    const std::lock_guard lock(state->m_mutex);
    if (!state->m_stop) state->m_candidates.push_back(std::move(unit));
}

void NetworkController::_data_receive(const SharedState& state, const unsigned char* data,
                                      uint64_t length, NetworkUnit* unit) {
    std::unique_lock lock(state->m_mutex);
    if (state->m_current != nullptr) {
        if (state->m_current.get() != unit) return;
        if (length == 0) {
            lock.unlock();
            _clear_current(state);
            return;
        }
        const std::shared_ptr<NetworkWorker> worker = state->m_worker.lock();
        if (worker == nullptr) return;
        lock.unlock();
        worker->OnDataReceived(data, length, {}, true);
        return;
    }

    const std::shared_ptr<NetworkWorker> worker = state->m_worker.lock();
    if (worker == nullptr) return;
    state->m_pending = unit;
    lock.unlock();

    // Let go on every way out, exceptions too: the unit may be destroyed soon after.
    struct Examination {
        State& state;
        ~Examination() {
            const std::lock_guard relock(state.m_mutex);
            state.m_pending = nullptr;
        }
    } const examination{*state};
    const auto signal = [&state, unit] {
        write_line(STDOUT_FILENO, "connected");
        _set_current(state, unit);
    };
    worker->OnDataReceived(data, length, signal, false);
}

void NetworkController::_set_current(const SharedState& state, NetworkUnit* unit) {
    {
        const std::lock_guard lock(state->m_mutex);
        const auto holds_unit = [unit](const auto& candidate) { return candidate.get() == unit; };
        const auto node = std::ranges::find_if(state->m_candidates, holds_unit);
        if (node != state->m_candidates.end()) {
            auto& hosts = state->m_candidate_hosts;
            hosts.erase(hosts.find(unit->address()));
            state->m_current.swap(*node);
            if (*node != nullptr) hosts.insert((*node)->address());
        }
    }
    _clear_all(state);
}

void NetworkController::send(const unsigned char* data, uint64_t length) {
    std::unique_lock lock(m_state->m_mutex);
    if (m_state->m_current != nullptr) {
        if (m_state->m_current->send(data, length)) return;
        lock.unlock();
        _clear_current(m_state);
    } else if (m_state->m_pending != nullptr && m_state->m_pending->writable()) {
        // A candidate that does not read its answers is not waited for: everybody else would be.
        m_state->m_pending->send(data, length);
    }
}

void NetworkController::_clear_current(const SharedState& state) {
    std::unique_ptr<NetworkUnit> unit;
    {
        const std::lock_guard lock(state->m_mutex);
        unit = std::move(state->m_current);
    }
    destroy_aside([unit = std::move(unit)]() mutable { unit.reset(); });
}

void NetworkController::_clear_all(const SharedState& state) {
    State::Units seekers;
    {
        const std::lock_guard lock(state->m_mutex);
        seekers.splice(seekers.end(), state->m_seekers);
    }
    destroy_aside([units = std::move(seekers)]() mutable { units.clear(); });

    State::Units candidates;
    {
        const std::lock_guard lock(state->m_mutex);
        candidates.splice(candidates.end(), state->m_candidates);
    }
    destroy_aside([state, units = std::move(candidates)]() mutable {
        for (auto& unit : units) {
            if (unit == nullptr) continue;  // its place in the list was taken by none
            const uint32_t host = unit->address();
            unit.reset();
            const std::lock_guard lock(state->m_mutex);
            state->m_candidate_hosts.erase(state->m_candidate_hosts.find(host));
        }
    });
}
