#include "util/Thread.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <cerrno>
#include <exception>
#include <iostream>
#include <system_error>
#include <thread>

namespace Thread {

ThreadId currentId() { return pthread_self(); }

bool startDetached(std::function<void()> fn) {
  try {
    std::thread([fn = std::move(fn)] {
      try {
        fn();
      } catch (const std::exception& e) {
        std::cerr << "Exception in thread: " << e.what() << std::endl;
      } catch (...) {
        std::cerr << "Unrecognized exception in thread" << std::endl;
      }
    }).detach();
    return true;
  } catch (const std::system_error& e) {
    errno = e.code().value();
    return false;
  }
}

int signal(ThreadId id, int sig) { return pthread_kill(id, sig); }

void yield() { sched_yield(); }

}  // namespace Thread
