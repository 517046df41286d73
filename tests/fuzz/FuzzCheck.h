// Invariant check for the fuzz targets: a violation aborts, which libFuzzer
// records as a crash and the corpus replay reports as a failure.
#ifndef HIVE_TESTS_FUZZ_FUZZCHECK_H_
#define HIVE_TESTS_FUZZ_FUZZCHECK_H_

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                           \
  do {                                                                             \
    if (!(cond)) {                                                                 \
      std::fprintf(stderr, "%s:%d: invariant failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                \
    }                                                                              \
  } while (0)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

#endif  // HIVE_TESTS_FUZZ_FUZZCHECK_H_
