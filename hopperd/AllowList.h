// The IPv4 networks whose connections the daemon accepts ("10.0.0.0/8,127.0.0.1").
#ifndef HIVE_HOPPERD_ALLOWLIST_H_
#define HIVE_HOPPERD_ALLOWLIST_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class AllowList {
 public:
  // Parses comma-separated "a.b.c.d[/n]" items (blanks around them ignored).
  // Throws std::runtime_error naming the faulty item, or for an empty list.
  static AllowList parse(const std::string& text);

  // Strict dotted-quad text to a host-order address; nothing otherwise.
  static std::optional<uint32_t> parseAddress(const std::string& text);

  // True when the dotted-quad address lies in one of the networks.
  bool allows(const std::string& address) const;

  // The networks as "a.b.c.d/n", comma-separated.
  std::string toString() const;

 private:
  struct Network {
    uint32_t mBase;
    int mPrefix;
  };
  std::vector<Network> mNetworks;
};

#endif  // HIVE_HOPPERD_ALLOWLIST_H_
