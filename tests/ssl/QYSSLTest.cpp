#include "ssl/QYSSL.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "support/TempDir.h"
#include "support/Thrown.h"

namespace {

using qysec::SSLProvider;

// A CA with leaf certificates, and a rogue CA whose leaf copies a trusted name.
const char kMakeCertificates[] = R"(set -e
printf '[req]\ndistinguished_name=dn\n[dn]\n[ca]\nbasicConstraints=critical,CA:TRUE\nkeyUsage=keyCertSign\n[leaf]\nbasicConstraints=CA:FALSE\n' >x.cnf
key="-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
ca() { openssl req -x509 $key -days 2 -keyout $1.key -out $1.pem -subj /CN=$1 -config x.cnf -extensions ca; }
leaf() { openssl req -new $key -keyout $1.key -out $1.csr -subj "$2" -config x.cnf
  openssl x509 -req -days 2 -in $1.csr -CA $3.pem -CAkey $3.key -set_serial 1 -extfile x.cnf -extensions leaf -out $1.crt
  cat $1.crt $1.key >$1.pem; }
ca ca; ca rogue; leaf server /OU=servers/CN=server1 ca; leaf alice /OU=builders/CN=alice ca
leaf bob /OU=testers/CN=bob ca; leaf eq /CN=a=b ca; leaf mallory /OU=builders/CN=alice rogue)";

// The certificates, made once per process in a temporary folder.
struct Certificates {
  Certificates() {
    signal(SIGPIPE, SIG_IGN);
    TempDir::write(dir.file("make.sh"), kMakeCertificates);
    made = std::system(("cd " + dir.path() + " && sh make.sh >make.log 2>&1").c_str()) == 0;
  }
  TempDir dir;
  bool made;
};

std::string path(const std::string& name) {
  static const Certificates certificates;
  EXPECT_TRUE(certificates.made);
  return certificates.dir.file(name + ".pem");
}

// Requires trusted certificates and presents |own|.
std::unique_ptr<SSLProvider> strict(const std::string& own, const char* acl = nullptr) {
  auto provider = std::make_unique<SSLProvider>(true);
  provider->setTrustedCACerts(path("ca").c_str());
  provider->setOwnCertAndKey(path(own).c_str());
  provider->setACL(acl);
  return provider;
}

// Handshake over a socket pair, the server on a thread, which echoes what
// the client sends; each side's result is the echo or its error.
std::pair<std::string, std::string> handshake(SSLProvider& server, SSLProvider& client) {
  int fds[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  const timeval limit{10, 0};  // a broken handshake must not hang the test
  for (int fd : fds) setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  const auto talk = [](SSLProvider& provider, int fd, bool serve) -> std::string {
    try {
      auto socket = serve ? provider.accept(fd) : provider.connect(fd);
      char buf[4] = {};
      if (!serve) socket->write("ping", 4);
      socket->read(buf, 4);
      if (serve) socket->write(buf, 4);
      return std::string(buf, 4);
    } catch (const std::exception& e) {
      shutdown(fd, SHUT_RDWR);  // the other side sees the end at once
      return e.what();
    }
  };
  std::string serverSide;
  std::thread serverThread([&] { serverSide = talk(server, fds[0], true); });
  const std::string clientSide = talk(client, fds[1], false);
  serverThread.join();
  close(fds[0]);
  close(fds[1]);
  return {serverSide, clientSide};
}

std::string aclError(const char* acl) {
  return thrownMessage<std::runtime_error>([&] { SSLProvider(true).setACL(acl); });
}

}  // namespace

TEST(SSLProvider, AccessListParsing) {
  EXPECT_EQ(aclError("CN=alice"), "Invalid allow option (unknown type) 'CN=alice'");
  EXPECT_EQ(aclError("ou=x,cn"), "Invalid allow option (no equal) 'cn'");
  EXPECT_EQ(aclError("cn="), "Invalid allow option (no value) 'cn='");
  EXPECT_EQ(aclError(",,cn=a,,ou=b,"), "(no exception)");

  SSLProvider lax(false);
  EXPECT_THROW(lax.setTrustedCACerts(path("missing").c_str()), std::runtime_error);
}

TEST(SSLProvider, HandshakeAcceptsOrRefusesPeers) {
  auto server = strict("server", "cn=zed,ou=testers,cn=alice,cn=a=b");
  EXPECT_EQ(handshake(*server, *strict("alice")), std::make_pair(std::string("ping"), std::string("ping")));
  EXPECT_EQ(handshake(*server, *strict("bob")).first, "ping");  // by organisational unit
  EXPECT_EQ(handshake(*server, *strict("eq")).first, "ping");   // a value holding '=' is whole
  EXPECT_EQ(handshake(*server, *strict("server")).first, "SSL handshake failure: peer not allowed");
  auto [rogueServer, rogueClient] = handshake(*server, *strict("mallory"));
  EXPECT_EQ(rogueServer.rfind("SSL handshake failure: ", 0), 0u) << rogueServer;
  EXPECT_NE(rogueServer.find("certificate verify failed"), std::string::npos) << rogueServer;
  EXPECT_EQ(rogueClient.rfind("SSL handshake failure: ", 0), 0u) << rogueClient;

  EXPECT_EQ(handshake(*strict("server"), *strict("bob")).first, "ping");  // no list: anyone trusted
  SSLProvider anonymous(false), lax(false);
  EXPECT_EQ(handshake(*server, anonymous).first.rfind("SSL handshake failure: ", 0), 0u);
  lax.setACL("cn=nobody");  // not consulted without the trust requirement
  lax.setOwnCertAndKey(path("server").c_str());
  EXPECT_EQ(handshake(lax, anonymous).second, "ping");
}
