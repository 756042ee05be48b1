// A mutex with annotations. Clang's -Wthread-safety checks at compile time that a guarded member is
// used only under its mutex; other compilers ignore the annotations.
#pragma once

#include <mutex>

#if defined(__clang__)
#define GUILINK_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define GUILINK_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) GUILINK_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY GUILINK_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(mutex) GUILINK_THREAD_ANNOTATION(guarded_by(mutex))
#define REQUIRES(...) GUILINK_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) GUILINK_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) GUILINK_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) GUILINK_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace guilink {

class CAPABILITY("mutex") Mutex {
  public:
    void lock() ACQUIRE() { m_mutex.lock(); }
    void unlock() RELEASE() { m_mutex.unlock(); }

  private:
    std::mutex m_mutex;
};

// Holds a mutex for a scope. std::condition_variable_any can wait on this lock.
class SCOPED_CAPABILITY Lock {
  public:
    explicit Lock(Mutex& mutex) ACQUIRE(mutex) : m_lock(mutex) {}
    ~Lock() RELEASE() = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void unlock() RELEASE() { m_lock.unlock(); }
    void lock() ACQUIRE() { m_lock.lock(); }

  private:
    std::unique_lock<Mutex> m_lock;
};

}  // namespace guilink

using guilink::Lock;  // see wire/frame.h
using guilink::Mutex;
