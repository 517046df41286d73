// GetOpt: the command-line option scanner behind Application::parseArgs.
//
// It scans a vector of argument texts (argv without argv[0]) in place and
// understands short options and clusters of them ("-hv", "-ovalue"), long
// options with an attached or a separate value ("--hosts=a", "--hosts a"),
// unique prefixes of long names, "--" as the end of options and a lone "-"
// as a positional argument.  It either stops at the first non-option or
// permutes the skipped non-options behind the options, so that after the
// last call the positional arguments run from optind to the end.
//
// One difference from the usual C library scanner is deliberate: a prefix
// matching two rows is ambiguous even when both rows carry the same value.

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

  // Scans args in place.  shortOpts lists the short option characters, each
  // optionally followed by ':' (takes a value) or "::" (optional value); a
  // leading ':' makes a missing short value return ':' instead of '?'.
  // longOpts may be null.  Both must outlive the scanner.
  GetOpt(std::vector<const char*>& args, const char* shortOpts,
         const Option* longOpts);

  // Returns the next option: its character or table value, 0 for a row with
  // a flag, '?' for any error (optopt tells which option) and -1 once the
  // options are exhausted.  optarg holds the option's value or null.  With
  // stopAtNonOption the scan ends at the first positional argument;
  // otherwise non-options are moved behind the options.
  int next(bool stopAtNonOption);

  // Characters that introduce an option (default "-").
  void setOptionCharacters(const std::string& chars) { mOptionCharacters = chars; }
  // Whether names and short characters are matched case-sensitively (default).
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
  // The exact match, else the only row the name is a prefix of, else null.
  const Option* findLongOption(const char* name, size_t length) const;
  // Where c stands in the short option string (its ':' marks follow), or null.
  const char* findShortEntry(char c) const;
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
