#include "hopper/GetOpt.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <strings.h>

namespace {

char foldCase(char c) {
  return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

}  // namespace

GetOpt::GetOpt(std::vector<const char*>& args, const char* shortOpts,
               const Option* longOpts)
    : mArgs(args), mShortOpts(shortOpts != nullptr ? shortOpts : ""), mLongOpts(longOpts) {}

int GetOpt::next(bool stopAtNonOption) {
  optarg = nullptr;
  optlong = false;
  if (mNextChar != nullptr && *mNextChar != '\0') return parseShortOption();

  settlePermutation();
  while (optind < argCount() && !isOption(optind)) {
    if (stopAtNonOption) return -1;
    ++optind;
  }
  mNonOptEnd = optind;

  if (optind >= argCount()) {
    // The permuted non-options (if any) are now the tail of the vector.
    optind = mNonOptStart;
    return -1;
  }
  if (std::strcmp(mArgs[optind], "--") == 0) return endOfOptions();

  mNextChar = mArgs[optind] + 1;
  if (mLongOpts != nullptr && *mNextChar == '-') {
    ++mNextChar;
    optlong = true;
    return parseLongOption();
  }
  return parseShortOption();
}

bool GetOpt::isOption(int index) const {
  const char* arg = mArgs[index];
  // A lone option character ("-") is a positional argument.
  return arg[0] != '\0' && mOptionCharacters.find(arg[0]) != std::string::npos &&
         arg[1] != '\0';
}

void GetOpt::settlePermutation() {
  // Within what was scanned, so a call after -1 is harmless.
  if (mNonOptEnd > optind) mNonOptEnd = optind;
  if (mNonOptStart > optind) mNonOptStart = optind;

  if (mNonOptStart != mNonOptEnd) {
    if (mNonOptEnd != optind) shiftNonOpts();
  } else if (mNonOptStart != optind) {
    mNonOptStart = optind;
  }
}

int GetOpt::endOfOptions() {
  const int dashPos = optind;
  ++optind;
  if (mNonOptStart != dashPos) {
    shiftNonOpts();  // "--" moves in front of the skipped non-options
  } else {
    mNonOptStart = optind;
  }
  mNonOptEnd = argCount();
  optind = mNonOptStart;
  return -1;
}

int GetOpt::parseShortOption() {
  char c = *mNextChar++;
  if (!mCaseSensitive) c = foldCase(c);
  const auto it = std::find_if(mShortOpts.begin(), mShortOpts.end(),
                               [&](char s) { return (mCaseSensitive ? s : foldCase(s)) == c; });
  const char* entry = it == mShortOpts.end() ? nullptr : &*it;
  const int result = static_cast<unsigned char>(c);

  if (*mNextChar == '\0') ++optind;
  if (entry == nullptr || c == ':') {
    optopt = result;
    return '?';
  }
  if (entry[1] == ':') {
    const bool optional = entry[2] == ':';
    if (*mNextChar != '\0') {
      optarg = mNextChar;  // the rest of the cluster is the value
      ++optind;
    } else if (!optional) {
      if (optind >= argCount()) {
        optopt = result;
        mNextChar = nullptr;
        return mShortOpts[0] == ':' ? ':' : '?';
      }
      optarg = mArgs[optind++];
    }
    mNextChar = nullptr;
  }
  return result;
}

const GetOpt::Option* GetOpt::findLongOption(const char* name,
                                             size_t length) const {
  const Option* candidate = nullptr;
  bool ambiguous = false;
  for (const Option* row = mLongOpts; row->name != nullptr; ++row) {
    const int cmp = mCaseSensitive ? std::strncmp(row->name, name, length)
                                   : ::strncasecmp(row->name, name, length);
    if (cmp != 0) continue;
    if (std::strlen(row->name) == length) return row;
    // Two prefix matches are ambiguous even when they share a value.
    if (candidate == nullptr) {
      candidate = row;
    } else {
      ambiguous = true;
    }
  }
  return ambiguous ? nullptr : candidate;
}

int GetOpt::parseLongOption() {
  const char* name = mNextChar;
  const char* equals = std::strchr(name, '=');
  const size_t length = equals != nullptr ? static_cast<size_t>(equals - name)
                                          : std::strlen(name);
  const Option* row = findLongOption(name, length);

  ++optind;
  mNextChar = nullptr;
  if (row == nullptr) {
    optopt = 0;
    return '?';
  }
  if (row->has_arg == NO_ARG) {
    if (equals != nullptr) return '?';
  } else if (equals != nullptr) {
    optarg = equals + 1;
  } else if (row->has_arg == REQ_ARG) {
    if (optind >= argCount()) {
      optopt = row->val;
      return '?';
    }
    optarg = mArgs[optind++];
  }
  if (row->flag != nullptr) {
    *row->flag = row->val;
    return 0;
  }
  return row->val;
}

void GetOpt::shiftNonOpts() {
  // Move the skipped non-options behind the options scanned since.
  std::rotate(mArgs.begin() + mNonOptStart, mArgs.begin() + mNonOptEnd,
              mArgs.begin() + optind);
  mNonOptStart += optind - mNonOptEnd;
  mNonOptEnd = optind;
}
