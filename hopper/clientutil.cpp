#include "hopper/clientutil.h"

#include <iostream>

#include "cmconnect/ClusterManagerConnection.h"
#include "xmlparser/XMLTree.h"

namespace {

const int kRetryIntervalMs = 100;
const int kAttemptsPerRequest = 6;
const int kDefaultCMPort = 8031;
const int kTransferTimeoutSeconds = 60;

}  // namespace

bool populateNodeMap(const std::string& cm, System::OSID osid,
                     std::map<std::string, std::string>& hosts, bool goodHostsOnly,
                     qysec::Provider* provider) {
  ClusterManagerConnection connection(kRetryIntervalMs, kAttemptsPerRequest, true);
  // The filter is sent as it stands: it is written already URL-encoded.
  std::string request = "agent_list.xml?ShowAll=1&Filter=agentOSID=" + std::to_string(osid);
  if (goodHostsOnly) request += "%20and%20agentEnabled=1%20and%20agentStatus=1";
  XMLTree reply;
  if (!connection.connect(cm, kDefaultCMPort, provider, kTransferTimeoutSeconds) ||
      !connection.sendHTTPMessage(request, reply, nullptr)) {
    std::cerr << "Error while requesting the host list from CM: " << connection.getError() << "\n";
    std::cerr.flush();
    return false;
  }
  XMLTree* quarry = reply.getSubTree("Quarry");
  if (quarry == nullptr) {
    std::cerr << "Protocol error while communicating with the CM\n";
    std::cerr.flush();
    return false;
  }
  XMLTree* agentList = quarry->getSubTree("AgentList");
  if (agentList == nullptr) return true;
  for (XMLTree* agent : agentList->getSubTrees("Agent")) {
    // A nameless agent would become host "", the first, so the head.
    const std::string& name = agent->getSingleSubTreeValue("Host");
    if (!name.empty()) hosts[name] = agent->getSingleSubTreeValue("IPAddress");
  }
  return true;
}
