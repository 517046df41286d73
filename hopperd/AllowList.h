// The networks whose connections the daemon accepts: a list of IPv4
// networks in CIDR notation ("10.0.0.0/8,127.0.0.1"), matched against the
// peer address of every accepted connection.
#ifndef HIVE_HOPPERD_ALLOWLIST_H_
#define HIVE_HOPPERD_ALLOWLIST_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class AllowList {
 public:
  // Parses a comma-separated list of "a.b.c.d/n" items; a bare address means
  // /32, blanks around items are ignored, host bits below the prefix are
  // dropped. Throws std::runtime_error naming the faulty item; an empty list
  // is an error too (it would refuse everybody).
  static AllowList parse(const std::string& text);

  // Dotted-quad text to a host-order address; nothing for anything else
  // (missing or extra parts, values over 255, signs, blanks).
  static std::optional<uint32_t> parseAddress(const std::string& text);

  // True when the dotted-quad address lies in one of the networks; false for
  // text that is not an address.
  bool allows(const std::string& address) const;

  // The networks in their normalised "a.b.c.d/n" form, comma-separated.
  std::string toString() const;

 private:
  struct Network {
    uint32_t mBase;
    int mPrefix;
  };
  static uint32_t maskOf(int prefix);

  std::vector<Network> mNetworks;
};

#endif  // HIVE_HOPPERD_ALLOWLIST_H_
