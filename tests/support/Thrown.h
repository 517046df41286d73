// thrownMessage: the text of the exception a piece of test code throws, so
// a test compares an error message in one line.
#ifndef HIVE_TESTS_SUPPORT_THROWN_H_
#define HIVE_TESTS_SUPPORT_THROWN_H_

#include <exception>
#include <string>

// The what() of the E that f() throws; "(no exception)" when f returns.
// Exceptions of other types pass through (and fail the test).
template <class E = std::exception, class F>
std::string thrownMessage(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "(no exception)";
}

#endif  // HIVE_TESTS_SUPPORT_THROWN_H_
