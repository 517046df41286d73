// URL text helpers. Values in cluster manager replies travel percent-encoded;
// the XML tree decodes them lazily with URL::decode.
#ifndef HIVE_UTIL_URL_H_
#define HIVE_UTIL_URL_H_

#include <string>

namespace URL {

// Appends to |decoded| the text of |encoded| with every "%" followed by two
// hexadecimal digits replaced by that byte. Anything else, including "+" and
// a "%" without two hexadecimal digits after it, is copied unchanged.
// |encoded| and |decoded| must be different objects (asserted).
void decode(const std::string& encoded, std::string& decoded);

}  // namespace URL

#endif  // HIVE_UTIL_URL_H_
