// Names shared by the tests.
#ifndef HIVE_TESTS_SUPPORT_TESTNAMES_H_
#define HIVE_TESTS_SUPPORT_TESTNAMES_H_

// A host name that never resolves and never leaves this machine: its first
// label is longer than the 63 characters a DNS label may have, so the
// resolver refuses it before sending any query.
#define HC_UNRESOLVABLE_HOST "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx.invalid"

#endif  // HIVE_TESTS_SUPPORT_TESTNAMES_H_
