// Only the access list: the cluster manager's TLS session is libcurl's, not the provider's.
#include "ssl/QYSSL.h"

#include <gtest/gtest.h>

#include "support/Thrown.h"

namespace {

std::string aclError(const char* acl) {
  return thrownMessage<std::runtime_error>([&] { qysec::SSLProvider(true).setACL(acl); });
}

}  // namespace

TEST(SSLProvider, AccessListParsing) {
  EXPECT_EQ(aclError("CN=alice"), "Invalid allow option (unknown type) 'CN=alice'");
  EXPECT_EQ(aclError("ou=x,cn"), "Invalid allow option (no equal) 'cn'");
  EXPECT_EQ(aclError("cn="), "Invalid allow option (no value) 'cn='");
  EXPECT_EQ(aclError(",,cn=a=b,,ou=b,"), "(no exception)");
}
