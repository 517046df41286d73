// Thin thread helpers over POSIX threads: identifiers, detached threads and
// directed signals. Joinable threads are std::thread.
#ifndef HIVE_UTIL_THREAD_H_
#define HIVE_UTIL_THREAD_H_

#include <pthread.h>

#include <functional>

// The POSIX identifier of a thread; 0 never names a running thread here.
using ThreadId = pthread_t;

namespace Thread {

// Identifier of the calling thread.
ThreadId currentId();

// Runs fn on a new detached thread (with the caller's signal mask); false with
// errno set when there is none. An escaping exception is reported and dropped.
bool startDetached(std::function<void()> fn);

// Sends sig to the thread id (pthread_kill). Returns 0 or the error number.
int signal(ThreadId id, int sig);

// Gives up the processor.
void yield();

}  // namespace Thread

#endif  // HIVE_UTIL_THREAD_H_
