#include "hopper/RunnerApplication.h"

#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "hopper/StringExpander.h"
#include "hopper/clientutil.h"
#include "hopper/hopperMisc.h"
#include "ssl/QYSSL.h"
#include "util/SignalProcessing.h"
#include "util/StringUtilities.h"
#include "util/TCPSocket.h"

namespace {

const char* const kCommonSwitches =
    " -h  --help             This usage message.\n"
    " -v  --version          Print version info.\n"
    "     --verbose          Verbose mode.\n"
    "     --hosts=val        Set of hosts within the cluster to update.\n"
    "                        \"val\" should be of the form\n"
    "                                \"host1 host2:port ...\".\n"
    "                        Patterns may also be specified.\n"
    "\n"
    "                        The --hosts argument can take patterns of the form\n"
    "                        [X-Y] to indicate a range of host names/ip's.  It can\n"
    "                        also take patterns of the form [X,Y,Z] to indicate a\n"
    "                        list of hosts with X,Y, and Z substituted at the\n"
    "                        pattern location. To operate on host1, host2, host3,\n"
    "                        host5, host7, host-a, host-b, and host-c, one can use\n"
    "                        a --hosts argument like\n"
    "                                --hosts=\"host[1-3] host[5,7] host-[a-c]\".\n"
    "                        {}'s may be used instead of []'s to denote patterns.\n"
    "                        This is useful if this tool is invoked in a script\n"
    "                        that treats []'s specially.\n"
    "     --cm=val           CM that is contacted to get the relevant hosts.  This\n"
    "                        is only used when --hosts is *not* specified.\n"
    "                        Defaults to the value of the BRISK_CM environment\n"
    "                        variable (if present).\n"
    "     --platform=val     Platform of desired hosts.  \"val\" is one of windows,\n"
    "                        solaris, solarisx86, or linux.  Defaults to the\n"
    "                        platform on which this client program is running.\n"
    "     --timeout=val      Abort connection after 'val' seconds.";

}  // namespace

void RunnerApplication::usage() { std::cout << kCommonSwitches << std::endl; }

void RunnerApplication::initialize() {
  Application::initialize();
  if (wasOptionPresent('v')) {
    printVersion();
    std::exit(0);
  }
  blockSignalsAndTrapSIGUSR1();
  initializeAssumingSignalsAreBlocked();
  processSignals();
}

void RunnerApplication::printVersion() {
  std::cout << mProgramTextName << " " << getVersionString() << std::endl;
}

void RunnerApplication::blockSignalsAndTrapSIGUSR1() {
  System::disableSIGPIPE();
  System::trapUSR1ButDoNothing();
  SignalProcessing::block(System::sInteractiveShutdownSignals);
}

void RunnerApplication::initializeAssumingSignalsAreBlocked() {
  mCM = getOption(ARG_CM, System::getenv("BRISK_CM"));
  mFileListFile = getOption(ARG_FILELIST, nullptr);

  if (wasOptionPresent(ARG_NODES)) {
    try {
      parseNodesArg(getOption(ARG_NODES, ""), mNodeList);
    } catch (const std::runtime_error& e) {
      // Its own exit status; nothing set up needs undoing yet.
      std::cerr << "Error parsing --hosts argument: " << e.what() << std::endl;
      std::exit(2);
    }
  }

  const char* platform = getOption(ARG_PLATFORM, nullptr);
  mPlatform = System::makeOSID(platform);
  if (mPlatform == System::OS_INVALID) {
    throw std::runtime_error(std::string("Invalid platform: ") + platform);
  }

  mGoodNodesOnly = wasOptionPresent(ARG_GOODONLY);
  mStopAgents = wasOptionPresent(ARG_STOP_AGENTS);
  mVerbose = wasOptionPresent(ARG_VERBOSE);

  // Only 0 is refused: it is what a non-number reads as; negatives pass.
  mTimeout = getOptionAsInt(ARG_TIMEOUT, -1);
  if (mTimeout == 0) {
    throw std::runtime_error(std::string("Timeout value must be > 0: \"") +
                             getOption(ARG_TIMEOUT, "") + "\" invalid.");
  }

  if (!mNodeList.empty()) {
    for (const std::string& entry : mNodeList) {
      std::string host = entry;
      int port = 0;
      parseHostPort(entry, host, port);
      std::string address;
      try {
        address = TCPSocket::getHostIP(host);
      } catch (const std::exception& e) {
        // One unknown host does not stop the run; the others still get it.
        std::cerr << e.what() << std::endl;
        continue;
      }
      const std::string key = port == 0 ? address : address + ":" + std::to_string(port);
      mNodeIPToNameMap[key] = entry;
    }
    return;
  }
  if (mCM == nullptr) {
    std::cerr << "A CM or list of hosts is required!" << std::endl;
    usage();
    throw std::runtime_error("");
  }
  if (mPlatform == System::OS_NONE) mPlatform = System::OS_LINUX;
  // The CM is reached over TLS without checking its certificate.
  qysec::SSLProvider provider(false);
  // The query reports its own failures on standard error.
  if (!populateNodeMap(mCM, mPlatform, mNodeIPToNameMap, mGoodNodesOnly, &provider)) {
    throw std::runtime_error("");
  }
  if (mNodeIPToNameMap.empty()) {
    std::cerr << "No hosts found; you may have to use the --platform option." << std::endl;
    usage();
    throw std::runtime_error("");
  }
}
