// Application: the frame of every command-line program (the upload tool and
// the daemon). start() runs parseArgs, initialize, run and, always,
// terminate; an exception escaping any step becomes one line on standard
// error and exit status 1. One Application exists at a time.

#ifndef HIVE_HOPPER_APPLICATION_H_
#define HIVE_HOPPER_APPLICATION_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "hopper/GetOpt.h"

class Application {
 public:
  // Identifiers of long options without a short form (below 500: short
  // option characters). Fixed and shared; a tool's own start at 600.
  enum OptionID : int32_t {
    ARG___ = 500,
    ARG_CM = 501,
    ARG_EXCLUDE = 502,
    ARG_EXCLUDE_FROM = 503,
    ARG_EXISTING = 504,
    ARG_FILE = 505,
    ARG_FILELIST = 506,
    ARG_GOODONLY = 507,
    ARG_INCLUDE = 508,
    ARG_INCLUDE_FROM = 509,
    ARG_MERGESTREAMS = 510,
    ARG_NODES = 511,
    ARG_PLATFORM = 512,
    ARG_PROGRESS = 513,
    ARG_STOP_AGENTS = 514,
    ARG_TIMEOUT = 515,
    ARG_USE_SHELL = 516,
    ARG_LOGLEVEL = 517,
    ARG_LOGFILE = 518,
    ARG_VERBOSE = 519,
  };

  using ArgMap = std::map<int32_t, const char*>;

  // Keeps the option table (ended by a null name) and the display name; rows
  // valued 1 to 499 give the short options. Asserts it is the only one.
  Application(GetOpt::Option* options, const char* textName);
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  static Application& getInstance();

  // The last path component of argv[0], set by parseArgs.
  const std::string& getProgramName() const { return mProgramName; }

  // Returns run's status, or 1 when a step threw (its message on stderr).
  int start(int argc, char** argv);

  // True when the option was given (the char form: a short option).
  bool wasOptionPresent(OptionID id) const;
  bool wasOptionPresent(char c) const;
  // The value ("true" for a switch), or dflt when not given.
  const char* getOption(OptionID id, const char* dflt) const;
  // The value as strtol reads it ("12x" is 12, "x" is 0), or dflt.
  int getOptionAsInt(OptionID id, int dflt) const;

  // Does the program's work; the result is the exit status.
  virtual int run() = 0;
  // Prints the program's help.
  virtual void usage() = 0;
  // Logging: level "info" or "debug", file from the option or
  // defaultLogFile(); a file without a level throws. Subclasses call it first.
  virtual void initialize();
  // /var/log/<program>.log; "" means standard error.
  virtual std::string defaultLogFile() const;
  // Clean-up after run, also after a failure.
  virtual void terminate() {}
  virtual ~Application();
  // Options must precede the positional arguments. An invalid option prints
  // the usage and throws; -h prints it and exits with status 0.
  virtual void parseArgs(int argc, char** argv);

 protected:
  ArgMap mOptionMap;               // first occurrence of each option wins
  std::vector<const char*> mArgs;  // positional arguments in order
  const char* mPathProgramName = nullptr;  // argv[0] as given
  std::string mProgramName;
  const char* mProgramTextName;    // display name for the version banner
  GetOpt::Option* mOptions;
  std::string mShortOptions;

 private:
  const char* lookup(int32_t id) const;

  static Application* sApplication;
};

#endif  // HIVE_HOPPER_APPLICATION_H_
