#include "app/forever_thread.h"

#include <pthread.h>

#include <condition_variable>

#include "base/mutex.h"

namespace {

// Never destroyed: the destructor would wait for the idle thread, so exit would hang.
std::condition_variable_any& foreverThreadCond = *new std::condition_variable_any;
Mutex foreverThreadMutex;
bool foreverThreadFlag GUARDED_BY(foreverThreadMutex) = false;

}  // namespace

void foreverThread() {
    pthread_setname_np(pthread_self(), "idle");
    Lock lock(foreverThreadMutex);
    while (!foreverThreadFlag) foreverThreadCond.wait(lock);
}
