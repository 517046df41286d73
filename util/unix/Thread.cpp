#include "util/Thread.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <cerrno>
#include <exception>
#include <iostream>
#include <memory>

namespace {

void* runDetached(void* arg) {
  std::unique_ptr<std::function<void()>> fn(static_cast<std::function<void()>*>(arg));
  try {
    (*fn)();
  } catch (const std::exception& e) {
    std::cerr << "Exception in thread: " << e.what() << std::endl;
  } catch (...) {
    std::cerr << "Unrecognized exception in thread" << std::endl;
  }
  return nullptr;
}

}  // namespace

namespace Thread {

ThreadId currentId() { return pthread_self(); }

bool startDetached(std::function<void()> fn) {
  auto owned = std::make_unique<std::function<void()>>(std::move(fn));
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t id;
  const int rc = pthread_create(&id, &attr, runDetached, owned.get());
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    errno = rc;
    return false;
  }
  owned.release();  // the new thread owns it now
  return true;
}

int signal(ThreadId id, int sig) { return pthread_kill(id, sig); }

void yield() { sched_yield(); }

}  // namespace Thread
