#include "app/forever_thread.h"

#include <pthread.h>

#include <condition_variable>
#include <mutex>

namespace {

// Never destroyed: the destructor would wait for the waiting thread, and exit would never return.
std::condition_variable& foreverThreadCond = *new std::condition_variable;
std::mutex foreverThreadMutex;
bool foreverThreadFlag = false;

}  // namespace

void foreverThread() {
    pthread_setname_np(pthread_self(), "idle");
    std::unique_lock lock(foreverThreadMutex);
    while (!foreverThreadFlag) foreverThreadCond.wait(lock);
}
