// The host list from the cluster manager (CM): the agents of one platform.
#ifndef HIVE_HOPPER_CLIENTUTIL_H_
#define HIVE_HOPPER_CLIENTUTIL_H_

#include <map>
#include <string>

#include "util/System.h"

namespace qysec {
class Provider;
}

// Asks the CM at |cm| (port 8031 unless given) for the agents of |osid|
// (with |goodHostsOnly|, enabled ones that are up) and sets hosts[name] =
// address for each named one. |provider| (may be null) selects TLS. On
// failure writes the reason to standard error and returns false.
bool populateNodeMap(const std::string& cm, System::OSID osid,
                     std::map<std::string, std::string>& hosts, bool goodHostsOnly,
                     qysec::Provider* provider);

#endif  // HIVE_HOPPER_CLIENTUTIL_H_
