#include "util/Assert.h"

#include <cstdio>
#include <cstdlib>

void assertionFailed(const char* expr, const char* file, int line) {
  std::fprintf(stderr, "Assertion failed: %s (%s:%d)\n", expr, file, line);
  std::fflush(stderr);
  std::abort();
}
