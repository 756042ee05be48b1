// Starts detached threads.
#pragma once

#include <pthread.h>

#include <exception>
#include <memory>
#include <new>
#include <utility>

// Runs `action` on a new detached thread, which then destroys `action`. If the thread cannot be
// started, calls std::terminate, because the calling thread must not destroy `action`. Creates the
// thread as detached instead of calling std::thread::detach, which may read freed memory in the C
// library if the thread ends at the same time.
template <typename Action>
void run_detached(const char* name, Action action) noexcept {
    struct Start {
        const char* name;  // at most 15 characters
        Action action;
    };
    auto* const start = new (std::nothrow) Start{name, std::move(action)};
    if (start == nullptr) std::terminate();
    const auto entry = [](void* argument) -> void* {
        const std::unique_ptr<Start> owned(static_cast<Start*>(argument));
        pthread_setname_np(pthread_self(), owned->name);
        owned->action();
        return nullptr;
    };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    if (pthread_create(&thread, &attributes, entry, start) != 0) std::terminate();
    pthread_attr_destroy(&attributes);
}
