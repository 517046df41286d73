#include "util/StringUtilities.h"

#include "util/Assert.h"
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace System {

namespace {

// strerror is not reentrant; one process-wide lock serialises its use.
std::mutex& errorTextMutex() {
  static std::mutex m;
  return m;
}

std::string platformText(int code) {
  std::lock_guard<std::mutex> lock(errorTextMutex());
  const char* text = std::strerror(code);
  return text ? std::string(text) : std::string();
}

}  // namespace

int getLastError(ErrorType) { return errno; }

void SaveError::capture() { mCode = errno; }

void SaveError::restore() const { errno = mCode; }

std::string getErrorMessageStr(bool showCode, const unsigned long* code, ErrorType type) {
  SaveError saveSystem;
  SaveNetworkError saveNetwork;
  const unsigned long number = code ? *code : static_cast<unsigned long>(getLastError(type));
  std::string text = platformText(static_cast<int>(number));
  if (text.empty()) {
    text = "Error " + std::to_string(number);
  } else {
    if (text.size() >= 2 && text.compare(text.size() - 2, 2, "\r\n") == 0) {
      text.resize(text.size() - 2);
    } else if (text.back() == '\n') {
      text.pop_back();
    }
    if (!text.empty() && text.back() == '.') text.pop_back();
  }
  if (showCode) {
    char suffix[48];
    std::snprintf(suffix, sizeof suffix, " (error code 0x%lx)", number);
    text += suffix;
  }
  return text;
}

const char* getErrorMessage(bool showCode, const unsigned long* code, ErrorType type) {
  thread_local std::string result;
  // Assigned into the existing storage: an earlier pointer reads the new text.
  const std::string text = getErrorMessageStr(showCode, code, type);
  result.assign(text.data(), text.size());
  return result.c_str();
}

std::string errorText(int code, bool showCode) {
  const unsigned long number = static_cast<unsigned long>(code);
  return getErrorMessageStr(showCode, &number);
}

}  // namespace System

ErrnoException::ErrnoException(const char* what, int code)
    : std::runtime_error(format(what, code)), mCode(code) {}

std::string ErrnoException::format(const char* what, int code) {
  std::string text = System::platformText(code);
  std::string result(what ? what : "");
  result += ": ";
  if (!text.empty()) return result + text;
  char buf[64];
  std::snprintf(buf, sizeof buf, "unexpected errno %d (%x)", code, static_cast<unsigned>(code));
  return result + buf;
}

std::ostream& operator<<(std::ostream& os, const MessagePrefix& mp) {
  HC_ASSERT(mp.mCode);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s QY%04d: ", mp.mError ? "ERROR" : "WARNING", mp.mCode);
  return os << buf;
}

namespace {
const char kSpace[] = " \v\f\t\r\n";
}

void removeTrailingLeadingSpace(std::string& s) {
  const std::string::size_type first = s.find_first_not_of(kSpace);
  if (first == std::string::npos) {
    s.clear();
    return;
  }
  s.erase(0, first);
  s.erase(s.find_last_not_of(kSpace) + 1);
}

void parseHostPort(const std::string& in, std::string& host, int& port) {
  const std::string::size_type colon = in.find(':');
  if (colon == std::string::npos) {
    host = in;
    return;
  }
  port = static_cast<int>(std::strtol(in.c_str() + colon + 1, nullptr, 10));
  host = in.substr(0, colon);
}
