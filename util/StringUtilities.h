// Error texts, error-number preservation and the few string edits the tools
// need: trimming, splitting "host:port", and a non-owning character view.
#ifndef HIVE_UTIL_STRINGUTILITIES_H_
#define HIVE_UTIL_STRINGUTILITIES_H_

#include <cstddef>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <string>

namespace System {

// Which error store a call reads. Both are errno on this platform.
enum ErrorType { SYSTEM_ERROR = 0, NETWORK_ERROR = 1 };

// Returns the current errno.
int getLastError(ErrorType type = SYSTEM_ERROR);

// Text for *code (or errno), without a final full stop or line end; with
// showCode " (error code 0x<hex>)" follows. errno is unchanged.
std::string getErrorMessageStr(bool showCode = false,
                               const unsigned long* code = nullptr,
                               ErrorType type = SYSTEM_ERROR);

// Same text; the pointer stays valid until this thread's next call.
const char* getErrorMessage(bool showCode = false,
                            const unsigned long* code = nullptr,
                            ErrorType type = SYSTEM_ERROR);

// Convenience: getErrorMessageStr for an explicit error number.
std::string errorText(int code, bool showCode = false);

// Keeps errno intact across clean-up code: captured on construction, written
// back on destruction.
class SaveError {
 public:
  SaveError() { capture(); }
  ~SaveError() { restore(); }
  SaveError(const SaveError&) = delete;
  SaveError& operator=(const SaveError&) = delete;
  void capture();
  void restore() const;

 private:
  int mCode = 0;
};

// The socket error store; the same errno on this platform.
class SaveNetworkError : public SaveError {};

}  // namespace System

// Runtime error carrying an error number. what() is format(what, code).
class ErrnoException : public std::runtime_error {
 public:
  ErrnoException(const char* what, int code);
  // what + ": " + the platform text for code (or "unexpected errno N (hex)").
  static std::string format(const char* what, int code);
  int err() const { return mCode; }

 private:
  int mCode;
};

// Inserted into a stream as "ERROR QY0042: " or "WARNING QY0042: ".
// A code of 0 is a programming error.
struct MessagePrefix {
  bool mError;
  int mCode;
};
std::ostream& operator<<(std::ostream& os, const MessagePrefix& mp);

// Trims blanks, tabs, vertical tabs, form feeds, CR and LF at both ends.
void removeTrailingLeadingSpace(std::string& s);

// Splits "host:port" at the first ':', the port read with strtol ("" gives
// 0). Without ':' the port is unchanged, so callers preset the default.
void parseHostPort(const std::string& in, std::string& host, int& port);

// Non-owning view of characters; the text must outlive the key.
class GenericStringKey {
 public:
  GenericStringKey() : mData(""), mLength(0) {}
  GenericStringKey(const char* s) : mData(s), mLength(std::strlen(s)) {}
  GenericStringKey(const char* s, std::size_t n) : mData(s), mLength(n) {}
  GenericStringKey(const std::string& s) : mData(s.data()), mLength(s.size()) {}

  const char* data() const { return mData; }
  std::size_t size() const { return mLength; }
  bool empty() const { return mLength == 0; }
  char operator[](std::size_t i) const { return mData[i]; }
  char back() const { return mData[mLength - 1]; }
  std::string str() const { return std::string(mData, mLength); }

 private:
  const char* mData;
  std::size_t mLength;
};

#endif  // HIVE_UTIL_STRINGUTILITIES_H_
