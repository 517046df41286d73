// GetOpt: the option scanner behind Application::parseArgs. It scans argv
// (without argv[0]) in place: short options and clusters ("-hv", "-ovalue"),
// long options with attached or separate values, unique prefixes, "--" and a
// lone "-". It stops at the first non-option or permutes non-options behind
// the options, which then end at optind. Unlike the C library, a prefix of
// two rows is ambiguous even when both carry the same value.

#ifndef HIVE_HOPPER_GETOPT_H_
#define HIVE_HOPPER_GETOPT_H_

#include <cstdint>
#include <string>
#include <vector>

class GetOpt {
 public:
  enum ArgKind : int32_t { NO_ARG = 0, REQ_ARG = 1, OPT_ARG = 2 };

  // One row of an option table; a table ends with a row whose name is null.
  struct Option {
    const char* name;  // long name without the leading dashes
    int32_t has_arg;   // NO_ARG, REQ_ARG or OPT_ARG
    int32_t* flag;     // when set, a match stores val here and next() gives 0
    int32_t val;       // value returned on a match
    const char* dfault;  // default value, carried for the tool, not used here
  };

  // shortOpts: characters, each optionally followed by ':' (takes a value)
  // or "::" (optional value); a leading ':' makes a missing value return ':'.
  // longOpts may be null. Both must outlive the scanner.
  GetOpt(std::vector<const char*>& args, const char* shortOpts,
         const Option* longOpts);

  // The next option's character or value (optarg: its value), 0 for a row
  // with a flag, '?' for an error (optopt tells which), -1 at the end.
  int next(bool stopAtNonOption);

  // Defaults: "-" introduces an option; matching is case-sensitive.
  void setOptionCharacters(const std::string& chars) { mOptionCharacters = chars; }
  void setCaseSensitive(bool sensitive) { mCaseSensitive = sensitive; }

  // The block [start, end) of skipped non-options awaiting permutation.
  int getNonOptStart() const { return mNonOptStart; }
  int getNonOptEnd() const { return mNonOptEnd; }

  const char* optarg = nullptr;  // value of the option just returned, or null
  int optind = 0;                // index of the next argument to scan
  int optopt = '?';              // the offending option after an error
  bool optlong = false;          // the option just returned was a long one

 private:
  int argCount() const { return static_cast<int>(mArgs.size()); }
  bool isOption(int index) const;
  void settlePermutation();
  int endOfOptions();
  int parseShortOption();
  int parseLongOption();
  const Option* findLongOption(const char* name, size_t length) const;
  void shiftNonOpts();

  std::vector<const char*>& mArgs;
  std::string mShortOpts;
  const Option* mLongOpts;
  const char* mNextChar = nullptr;
  int mNonOptStart = 0;
  int mNonOptEnd = 0;
  std::string mOptionCharacters = "-";
  bool mCaseSensitive = true;
};

#endif  // HIVE_HOPPER_GETOPT_H_
