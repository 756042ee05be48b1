#include "app/forever_thread.h"

#include <pthread.h>

#include <condition_variable>
#include <mutex>

namespace {

// Stays alive on purpose: destroying a condition variable waits for its waiters, and exit would
// never end.
std::condition_variable& foreverThreadCond = *new std::condition_variable;
std::mutex foreverThreadMutex;
bool foreverThreadFlag = false;

}  // namespace

void foreverThread() {
    pthread_setname_np(pthread_self(), "keep-alive");
    std::unique_lock lock(foreverThreadMutex);
    while (!foreverThreadFlag) foreverThreadCond.wait(lock);
}
