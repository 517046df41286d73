// Application: the frame every command-line program of the system derives
// from (the upload tool and the daemon alike).
//
// start() runs the program's whole life: parseArgs turns argv into a map
// from option identifier to value plus the positional arguments, initialize
// sets up logging, run does the work, and terminate always gets a chance to
// clean up.  An exception escaping any step becomes one line on standard
// error and exit status 1.  Exactly one Application exists at a time.

#ifndef HIVE_HOPPER_APPLICATION_H_
#define HIVE_HOPPER_APPLICATION_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "hopper/GetOpt.h"

class Application {
 public:
  // Identifiers of long options without a short form.  Values below 500 are
  // short option characters ('h' = 104, 'v' = 118).  The values are fixed
  // and shared by all tools; a tool with options of its own numbers them
  // from 600 up and casts them to OptionID.
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

  // Keeps the option table (ended by a row with a null name) and the display
  // name; every row whose value is a character (1 to 499) adds it to the
  // short options.  Asserts that no other Application exists.
  Application(GetOpt::Option* options, const char* textName);
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  // The current instance; only valid while one exists.
  static Application& getInstance();

  // The last path component of argv[0], set by parseArgs.
  const std::string& getProgramName() const { return mProgramName; }

  // parseArgs, initialize, run, then terminate in every case.  Returns run's
  // status, or 1 when any step threw (its message goes to standard error).
  int start(int argc, char** argv);

  // True when the option was given.  The char form asks for a short option
  // (or the long rows that share its character).
  bool wasOptionPresent(OptionID id) const;
  bool wasOptionPresent(char c) const;
  // The option's value, or dflt when it was not given; an option without a
  // value reads "true".
  const char* getOption(OptionID id, const char* dflt) const;
  // The value read as a base-10 integer the way strtol reads it ("12x" is
  // 12, "x" is 0), or dflt when the option was not given.
  int getOptionAsInt(OptionID id, int dflt) const;

  // Does the program's work; the result is the exit status.
  virtual int run() = 0;
  // Prints the program's help.
  virtual void usage() = 0;
  // Sets up logging: level "info" or "debug", file from the log-file option
  // or defaultLogFile().  A log file without a level throws.
  // Subclasses call it first.
  virtual void initialize();
  // Where records go when no log file is named: /var/log/<program>.log; ""
  // means standard error.
  virtual std::string defaultLogFile() const;
  // Clean-up after run (also after a failure); nothing here.
  virtual void terminate();
  virtual ~Application();
  // Fills the option map and the positional arguments.  Options must come
  // before the first positional argument.  An invalid option prints the
  // usage and throws; -h prints the usage and exits with status 0.
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
  // The stored value of an option, or null.
  const char* lookup(int32_t id) const;

  static Application* sApplication;
};

#endif  // HIVE_HOPPER_APPLICATION_H_
