// The host list from the cluster manager (CM): the agents of one platform.
#ifndef HIVE_HOPPER_CLIENTUTIL_H_
#define HIVE_HOPPER_CLIENTUTIL_H_

#include <map>
#include <string>

#include "util/System.h"

namespace qysec {
class Provider;
}

// Asks the CM at |cm| (default port 8031 unless it carries ":port") for the
// agents of platform |osid| — with |goodHostsOnly| only enabled agents that
// are up — and sets hosts[host name] = address for each, later duplicates
// winning; an agent without a host name is skipped. |provider| (not owned,
// may be null) selects TLS. On failure writes the reason to standard error,
// leaves |hosts| as it was and returns false; a CM that lists no agents is
// not a failure.
bool populateNodeMap(const std::string& cm, System::OSID osid,
                     std::map<std::string, std::string>& hosts, bool goodHostsOnly,
                     qysec::Provider* provider);

#endif  // HIVE_HOPPER_CLIENTUTIL_H_
