// Assertions for programming errors that stay active in release builds: the
// failing expression is printed on standard error and the process aborts.
#ifndef HIVE_UTIL_ASSERT_H_
#define HIVE_UTIL_ASSERT_H_

// Prints "Assertion failed: <expr> (<file>:<line>)" and aborts.
[[noreturn]] void assertionFailed(const char* expr, const char* file, int line);

#define HC_ASSERT(expr) \
  ((expr) ? static_cast<void>(0) : assertionFailed(#expr, __FILE__, __LINE__))

// Same, with an explicit text in place of the expression.
#define HC_ASSERT_MSG(expr, text) \
  ((expr) ? static_cast<void>(0) : assertionFailed(text, __FILE__, __LINE__))

#endif  // HIVE_UTIL_ASSERT_H_
