#include "hopper/MoveManager.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/Thrown.h"
#include "util/TCPSocket.h"

TEST(MoveManagerTest, MessagesNameHostsAndPaths) {
  std::ostringstream out, err;
  MoveManager manager({{"10.0.0.1", "alpha"}, {"10.0.0.12", "beta"}, {"10.0.0.3", "10.0.0.3"}},
                      false, false, -1, System::OS_LINUX, out, err);
  // Ascending order, every occurrence: 10.0.0.1 already rewrites 10.0.0.12.
  std::string text = "10.0.0.1 and 10.0.0.1, 10.0.0.12, 10.0.0.3";
  manager.massageMsg(text);
  EXPECT_EQ(text, "alpha and alpha, alpha2, 10.0.0.3");
  // A name that forms its address again with what follows it still ends.
  MoveManager joins({{"ax", "xxxaa"}}, false, false, -1, System::OS_LINUX, out, err);
  text = "aaax ax";
  joins.massageMsg(text);
  EXPECT_EQ(text, "aaxxxaa xxxaa");
  manager.reportBadNodesByIP({{"10.0.0.3", 1}});
  EXPECT_EQ(err.str(),
            TCPSocket::getHostName() + ": Protocol version mismatch communicating with 10.0.0.3.\n");
  EXPECT_EQ(thrownMessage<std::runtime_error>([&] { manager.checkAbsolutePath("tmp/x"); }),
            "Remote path \"tmp/x\" must be an absolute path!");
}
