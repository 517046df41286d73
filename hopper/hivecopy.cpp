#include "hopper/hivecopy.h"

#include <iostream>
#include <sstream>
#include <stdexcept>

#include "util/SignalProcessing.h"
#include "util/StringUtilities.h"
#include "util/System.h"
#include "util/Timer.h"
#include "util/pathfun.h"

GetOpt::Option gOptions[] = {
    {"nodes", GetOpt::REQ_ARG, nullptr, Application::ARG_NODES, nullptr},
    {"hosts", GetOpt::REQ_ARG, nullptr, Application::ARG_NODES, nullptr},
    {"platform", GetOpt::REQ_ARG, nullptr, Application::ARG_PLATFORM, nullptr},
    {"cm", GetOpt::REQ_ARG, nullptr, Application::ARG_CM, nullptr},
    {"filelist", GetOpt::REQ_ARG, nullptr, Application::ARG_FILELIST, nullptr},
    {"good-nodes-only", GetOpt::NO_ARG, nullptr, Application::ARG_GOODONLY, nullptr},
    {"good-hosts-only", GetOpt::NO_ARG, nullptr, Application::ARG_GOODONLY, nullptr},
    {"stop-agents", GetOpt::NO_ARG, nullptr, Application::ARG_STOP_AGENTS, nullptr},
    {"verbose", GetOpt::NO_ARG, nullptr, Application::ARG_VERBOSE, nullptr},
    {"timeout", GetOpt::REQ_ARG, nullptr, Application::ARG_TIMEOUT, nullptr},
    {"help", GetOpt::NO_ARG, nullptr, 'h', nullptr},
    {"version", GetOpt::NO_ARG, nullptr, 'v', nullptr},
    {nullptr, 0, nullptr, 0, nullptr},
};

namespace {

const char* const kUsageHeader =
    "Usage: hivecopy [switches] src tgt\n"
    "       hivecopy [switches] src1 src2 ... tgt\n"
    "\n"
    "Switches:\n";

const char* const kUsageTail =
    "     --good-hosts-only  Only use hosts that have at least one pingable enabled\n"
    "                        agent in the cluster manager.  This option only applies\n"
    "                        when a CM is used to obtain hosts.  The default \n"
    "                        behavior is to use all hosts regardless of their state.\n"
    "     --filelist=val     Name of a file containing a list of source and target\n"
    "                        files to upload.  If this option is specified, 'src'\n"
    "                        and 'tgt' must not be specified.  Each line in the file\n"
    "                        must be of the form:\n"
    "                          srcFilePath => tgtFilePath\n"
    "     --stop-agents      Stop the agents when committing uploaded\n"
    "                        data to its final location.\n"
    "\n"
    "src is the relative or absolute path of the file/dir on the local machine.\n"
    "tgt is the absolute path to the file/dir on the hosts.  In the multiple src\n"
    "invocation style, tgt is assumed to be a directory.\n"
    "\n"
    "If src is a file and tgt is a dir, src is copied into tgt.\n"
    "If src is a file and tgt is a file, src is copied over tgt.\n"
    "If src is a dir, and tgt is a file, an error is reported.\n"
    "If src is a dir ending in / or \\, the contents of src are copied *into* tgt,\n"
    "   if tgt is a dir.  If tgt is not a dir, an error is reported.\n"
    "If src is a dir not ending in / or \\, the last component of src's path\n"
    "   becomes a subdirectory under tgt, and the contents of src are copied into\n"
    "   that subdirectory.\n"
    "Target paths need not exist in advance; the relevant directories will be\n"
    "   created as needed.\n"
    "\n"
    "If --filelist is specified with a value of a dash, file list data will be read\n"
    "from stdin.\n"
    "\n"
    "The --hosts argument can take patterns of the form [X-Y] to indicate a range\n"
    "of host names/ip's.  It can also take patterns of the form [X,Y,Z] to\n"
    "indicate a list of hosts with X,Y, and Z substituted at the pattern location\n"
    "To operate on host1, host2, host3, host5, host7, host-a, host-b, and host-c\n"
    "one can use a --hosts argument like \"host[1-3] host[5,7] host-[a-c]\".\n"
    "{}'s may be used instead of []'s to denote patterns.  This is useful if this\n"
    "tool is invoked in a script that treats []'s specially.\n";

// Longest file-list line; the read buffer holds one more for the NUL.
const int kMaxListLine = 198;

// Appends the pair of one trimmed line and returns "", or its fault's words.
const char* parseListLine(const std::string& line, FilePairs& pairs) {
  // "=>" wins wherever it is, so a source may hold "->".
  size_t delimiter = line.find("=>");
  if (delimiter == std::string::npos) delimiter = line.find("->");
  if (delimiter == std::string::npos) return ": Missing delimiter on line ";
  std::string source = line.substr(0, delimiter);
  std::string target = line.substr(delimiter + 2);
  removeTrailingLeadingSpace(source);
  removeTrailingLeadingSpace(target);
  if (source.empty()) return ": Source file is blank on line ";
  if (target.empty()) return ": Target file is blank on line ";
  pairs.emplace_back(source, target);
  return "";
}

// Reads the list from in; see HiveCopy::processFileListFile.
void readFileList(std::istream& in, const std::string& fileName, FilePairs& pairs,
                  std::string& errors) {
  std::ostringstream messages;
  char buffer[kMaxListLine + 1];
  for (int lineNumber = 1; !in.eof(); ++lineNumber) {
    in.getline(buffer, sizeof buffer);
    // A long line was cut (its rest would read as a new line) or reading
    // failed: either way reading stops.
    if (in.fail() && !in.eof()) {
      if (in.gcount() == kMaxListLine) {
        messages << fileName << ": Line too long on line " << lineNumber << "\n";
      } else {
        messages << "Error reading file: " << fileName << "\n";
      }
      break;
    }
    std::string line(buffer);
    removeTrailingLeadingSpace(line);
    if (line.empty() || line[0] == '#') continue;
    const std::string fault = parseListLine(line, pairs);
    if (!fault.empty()) messages << fileName << fault << lineNumber << "\n";
  }
  errors = messages.str();
}

}  // namespace

void HiveCopy::usage() {
  std::cout << kUsageHeader;
  RunnerApplication::usage();
  std::cout << kUsageTail << std::flush;
}

void HiveCopy::initializeAssumingSignalsAreBlocked() {
  RunnerApplication::initializeAssumingSignalsAreBlocked();
  if (mFileListFile != nullptr) {
    if (!mArgs.empty()) {
      usage();
      throw std::runtime_error(
          "--filelist option cannot be combined with 'src' and 'tgt' arguments.");
    }
    std::string errors;
    processFileListFile(mFileListFile, mFilePairs, errors);
    if (!errors.empty()) {
      std::cerr << errors << std::endl;
      throw std::runtime_error("Aborting upload");
    }
  } else if (mArgs.size() < 2) {
    usage();
    throw std::runtime_error("Missing arguments");
  } else if (mArgs.size() == 2) {
    mFilePairs.emplace_back(mArgs[0], mArgs[1]);
  } else {
    // Several sources land in the last argument under their last components.
    const std::string target = mArgs.back();
    for (size_t i = 0; i + 1 < mArgs.size(); ++i) {
      mFilePairs.emplace_back(mArgs[i], pathConcat(target, lastPathComponent(mArgs[i])));
    }
  }
  mUploadMgr = std::make_unique<UploadManager>(mNodeIPToNameMap, mVerbose, mStopAgents, mTimeout,
                                               mPlatform, std::cout, std::cerr);
}

void HiveCopy::processFileListFile(const char* fileName, FilePairs& pairs, std::string& errors) {
  // Any name that starts with a dash, not only "-", means standard input.
  if (fileName[0] == '-') {
    readFileList(std::cin, fileName, pairs, errors);
    return;
  }
  std::unique_ptr<std::ifstream> file = System::make_ifstream(fileName);
  if (!file->is_open() || !*file) {
    errors = std::string("Error opening file: ") + fileName;
    return;
  }
  readFileList(*file, fileName, pairs, errors);
}

void HiveCopy::processSignals() {
  SignalProcessing& signals = SignalProcessing::getInstance();
  signals.configureRange(System::sInteractiveShutdownSignals,
                         mUploadMgr->terminalSignalProcessor());
  signals.processSignals();
}

int HiveCopy::run() {
  Timer timer;
  timer.start(Ticks::currentTime());
  const bool ok = mUploadMgr->uploadBatch(mFilePairs);
  timer.stop();
  std::cout << "Upload time: " << timer.totalSeconds() << " secs" << std::endl;
  return ok ? 0 : 1;
}

void HiveCopy::terminate() {
  SignalProcessing::getInstance().stop();
  mUploadMgr.reset();
}
