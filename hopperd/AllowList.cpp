#include "hopperd/AllowList.h"

#include <sstream>
#include <stdexcept>

#include "util/StringUtilities.h"

namespace {

// Strict decimal in [0, max]: digits only, at most three of them.
std::optional<int> parseSmall(const std::string& text, int max) {
  if (text.empty() || text.size() > 3) return std::nullopt;
  int value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (value > max) return std::nullopt;
  return value;
}

std::string addressText(uint32_t a) {
  return std::to_string(a >> 24) + "." + std::to_string((a >> 16) & 255) + "." +
         std::to_string((a >> 8) & 255) + "." + std::to_string(a & 255);
}

uint32_t maskOf(int prefix) { return prefix == 0 ? 0 : ~uint32_t(0) << (32 - prefix); }

}  // namespace

std::optional<uint32_t> AllowList::parseAddress(const std::string& text) {
  uint32_t address = 0;
  std::string::size_type start = 0;
  for (int i = 0; i < 4; ++i) {
    // The last part runs to the end: a dot in it fails it.
    const std::string::size_type end = i < 3 ? text.find('.', start) : text.size();
    const std::optional<int> octet =
        end == std::string::npos ? std::nullopt : parseSmall(text.substr(start, end - start), 255);
    if (!octet) return std::nullopt;
    address = (address << 8) | uint32_t(*octet);
    start = end + 1;
  }
  return address;
}

AllowList AllowList::parse(const std::string& text) {
  AllowList list;
  std::istringstream items(text);
  for (std::string item; std::getline(items, item, ',');) {
    removeTrailingLeadingSpace(item);
    if (item.empty()) continue;
    const std::string::size_type slash = item.find('/');
    const std::optional<uint32_t> base = parseAddress(item.substr(0, slash));
    std::optional<int> prefix = 32;
    if (slash != std::string::npos) prefix = parseSmall(item.substr(slash + 1), 32);
    if (!base || !prefix) throw std::runtime_error("Invalid network \"" + item + "\" in allow list");
    list.mNetworks.push_back(Network{*base & maskOf(*prefix), *prefix});
  }
  if (list.mNetworks.empty()) throw std::runtime_error("The allow list names no network");
  return list;
}

bool AllowList::allows(const std::string& address) const {
  const std::optional<uint32_t> a = parseAddress(address);
  if (!a) return false;
  for (const Network& n : mNetworks) {
    if ((*a & maskOf(n.mPrefix)) == n.mBase) return true;
  }
  return false;
}

std::string AllowList::toString() const {
  std::string out;
  for (const Network& n : mNetworks) {
    if (!out.empty()) out += ',';
    out += addressText(n.mBase) + "/" + std::to_string(n.mPrefix);
  }
  return out;
}
