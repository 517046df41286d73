#include "hopper/Application.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>

#include "util/Assert.h"
#include "util/Logger.h"
#include "util/pathfun.h"

Application* Application::sApplication = nullptr;

namespace {

// getFileName gives "" for a bare name, as argv[0] is when run through PATH.
std::string lastPathComponent(const std::string& path) {
  return path.find('/') == std::string::npos ? path : getFileName(path);
}

}  // namespace

Application::Application(GetOpt::Option* options, const char* textName)
    : mProgramTextName(textName), mOptions(options) {
  for (const GetOpt::Option* row = mOptions; row != nullptr && row->name != nullptr; ++row) {
    // 500 and up have no short form; a NUL would cut the string short.
    if (row->val > 0 && row->val <= 499) mShortOptions += static_cast<char>(row->val);
  }
  HC_ASSERT(sApplication == 0);
  sApplication = this;
}

Application::~Application() {
  // Lets a later object (in tests) take the place of a finished one.
  if (sApplication == this) sApplication = nullptr;
}

Application& Application::getInstance() {
  HC_ASSERT(sApplication != 0);
  return *sApplication;
}

int Application::start(int argc, char** argv) {
  int status = 0;
  try {
    parseArgs(argc, argv);
    initialize();
    status = run();
  } catch (const std::exception& e) {
    std::cerr << e.what() << std::endl;
    status = 1;
  } catch (...) {
    std::cerr << "Caught unknown error" << std::endl;
    status = 1;
  }
  try {
    terminate();
  } catch (const std::exception& e) {
    std::cerr << "Terminate Failure" << e.what() << std::endl;
    return 1;
  } catch (...) {
    std::cerr << "Terminate caught unknown error." << std::endl;
    return 1;
  }
  return status;
}

const char* Application::lookup(int32_t id) const {
  const auto it = mOptionMap.find(id);
  return it == mOptionMap.end() ? nullptr : it->second;
}

bool Application::wasOptionPresent(OptionID id) const { return lookup(id) != nullptr; }

bool Application::wasOptionPresent(char c) const {
  return lookup(static_cast<unsigned char>(c)) != nullptr;
}

const char* Application::getOption(OptionID id, const char* dflt) const {
  const char* value = lookup(id);
  return value != nullptr ? value : dflt;
}

int Application::getOptionAsInt(OptionID id, int dflt) const {
  const char* value = lookup(id);
  return value != nullptr ? static_cast<int>(std::strtol(value, nullptr, 10)) : dflt;
}

void Application::parseArgs(int argc, char** argv) {
  mPathProgramName = argc > 0 ? argv[0] : "";
  mProgramName = lastPathComponent(mPathProgramName);

  std::vector<const char*> args(argv + (argc > 0 ? 1 : 0), argv + argc);
  GetOpt scanner(args, mShortOptions.c_str(), mOptions);

  for (int c = scanner.next(true); c != -1; c = scanner.next(true)) {
    if (c == '?') {
      usage();
      throw std::runtime_error("Invalid option provided.");
    }
    if (c == 'h') {
      usage();
      std::exit(0);
    }
    // A repeated option (or a synonym of one given earlier) is ignored.
    mOptionMap.emplace(c, scanner.optarg != nullptr ? scanner.optarg : "true");
  }
  mArgs.insert(mArgs.end(), args.begin() + scanner.optind, args.end());
}

std::string Application::defaultLogFile() const { return "/var/log/" + mProgramName + ".log"; }

void Application::initialize() {
  if (wasOptionPresent(ARG_LOGLEVEL)) {
    Logger& log = Logger::getInstance();
    const char* level = getOption(ARG_LOGLEVEL, "");
    if (std::strcmp(level, "info") == 0) {
      log.setGlobalMask(LOG_INFO);
    } else if (std::strcmp(level, "debug") == 0) {
      log.setGlobalMask(LOG_INFO | LOG_DEBUG);
    }
    const char* file = getOption(ARG_LOGFILE, "");  // absent or empty: the default
    log.setLogFile(*file != '\0' ? file : defaultLogFile());
    HC_LOG_INFO("Logging enabled for " << mProgramName);
  } else if (wasOptionPresent(ARG_LOGFILE)) {
    throw std::runtime_error("Logfile option requires a log level.");
  }
}
