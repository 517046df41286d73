// Connector: where a socket's connect() goes instead of TCP; tests connect to
// a peer inside the test process this way.
#ifndef HIVE_UTIL_CONNECTOR_H_
#define HIVE_UTIL_CONNECTOR_H_

#include <string>

#include "util/System.h"

class Connector {
 public:
  virtual ~Connector() = default;
  // A connected, blocking, close-on-exec descriptor to host:port, made
  // within timeoutMs. Throws TCPSocket::exception when there is none.
  virtual System::FileDescriptor connect(const std::string& host, int port, long timeoutMs) = 0;
};

#endif  // HIVE_UTIL_CONNECTOR_H_
