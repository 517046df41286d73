#include "util/URL.h"

#include "util/Assert.h"

namespace {

// Value of a hexadecimal digit, or -1 for any other character.
int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

namespace URL {

void decode(const std::string& encoded, std::string& decoded) {
  HC_ASSERT(&encoded != &decoded);
  decoded.reserve(decoded.size() + encoded.size());
  const size_t n = encoded.size();
  for (size_t i = 0; i < n; ++i) {
    const char c = encoded[i];
    if (c == '%' && i + 2 < n) {
      const int hi = hexValue(encoded[i + 1]);
      const int lo = hexValue(encoded[i + 2]);
      if (hi >= 0 && lo >= 0) {
        decoded.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    decoded.push_back(c);
  }
}

}  // namespace URL
