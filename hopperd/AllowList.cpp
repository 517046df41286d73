#include "hopperd/AllowList.h"

#include <stdexcept>

#include "util/StringUtilities.h"

namespace {

std::vector<std::string> splitOn(const std::string& text, char sep) {
  std::vector<std::string> items;
  std::string::size_type start = 0;
  while (true) {
    const std::string::size_type end = text.find(sep, start);
    items.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) return items;
    start = end + 1;
  }
}

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

}  // namespace

uint32_t AllowList::maskOf(int prefix) {
  return prefix == 0 ? 0 : ~uint32_t(0) << (32 - prefix);
}

std::optional<uint32_t> AllowList::parseAddress(const std::string& text) {
  const std::vector<std::string> parts = splitOn(text, '.');
  if (parts.size() != 4) return std::nullopt;
  uint32_t address = 0;
  for (const std::string& part : parts) {
    const std::optional<int> octet = parseSmall(part, 255);
    if (!octet) return std::nullopt;
    address = (address << 8) | uint32_t(*octet);
  }
  return address;
}

AllowList AllowList::parse(const std::string& text) {
  AllowList list;
  for (std::string item : splitOn(text, ',')) {
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
