// Transport security for the cluster manager client: a Provider makes
// secured sockets over connected descriptors; SSLProvider is the TLS 1.2 one
// and SSLSocket its session. The name "ssl" tells the HTTP client: https.
#ifndef HIVE_SSL_QYSSL_H_
#define HIVE_SSL_QYSSL_H_

#include <openssl/ssl.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "util/Mutex.h"

namespace qysec {

// A failed TLS handshake or a peer that was refused after it.
class HandshakeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Frees a library object held in a std::unique_ptr.
template <auto Free>
struct Deleter {
  template <class T>
  void operator()(T* object) const { Free(object); }
};
using SessionPtr = std::unique_ptr<SSL, Deleter<SSL_free>>;
using ContextPtr = std::unique_ptr<SSL_CTX, Deleter<SSL_CTX_free>>;

// A connected, secured byte stream.
class Socket {
 public:
  virtual ~Socket() = default;
  // Both return the byte count, 0 on an orderly close, or a negative value.
  virtual int write(const void* data, int length) = 0;
  virtual int read(void* data, int length) = 0;
  // True when decrypted bytes are already buffered (a read will not block).
  virtual bool isReadable() = 0;
};

// Factory of secured sockets over connected descriptors.
class Provider {
 public:
  virtual ~Provider() = default;
  // The server or client handshake on |fd| (still the caller's); throw
  // HandshakeError on failure.
  virtual std::unique_ptr<Socket> accept(int fd) = 0;
  virtual std::unique_ptr<Socket> connect(int fd) = 0;
  virtual const char* name() const = 0;
};

// One TLS session; closing it sends the close notification.
class SSLSocket : public Socket {
 public:
  // |session| has completed its handshake.
  explicit SSLSocket(SessionPtr session);
  ~SSLSocket() override;

  // A renegotiation request from the peer is refused with a runtime error.
  int write(const void* data, int length) override;
  int read(void* data, int length) override;
  bool isReadable() override;

 private:
  SessionPtr mImpl;
};

// TLS 1.2 on OpenSSL. With trusted certificates required: strong ECDHE
// ciphers only, and a peer certificate that verifies against the CA and,
// with an access list, carries an allowed CN or OU. Without: the library's
// defaults, any peer.
class SSLProvider : public Provider {
 public:
  // Throws std::runtime_error naming the failing step.
  explicit SSLProvider(bool requireTrustedCerts);

  std::unique_ptr<Socket> accept(int fd) override;
  std::unique_ptr<Socket> connect(int fd) override;
  const char* name() const override { return "ssl"; }

  // Each throws std::runtime_error with the OpenSSL error text on failure.
  void setTrustedCACerts(const char* file);
  // |file| holds the certificate chain and the private key (PEM).
  void setOwnCertAndKey(const char* file);
  void setAllowedCiphers(const char* list);
  // Adds the "cn=value" and "ou=value" entries of a comma-separated list.
  // Throws std::runtime_error for a malformed entry.
  void setACL(const char* acl);

  bool isValid() const { return mImpl != nullptr; }
  bool getTrustedCertsRequired() const { return mRequireTrustedCerts; }
  void setTrustedCertsRequired(bool required) { mRequireTrustedCerts = required; }
  // The CA file given to setTrustedCACerts, or null.
  const char* getCACertPem() const { return mCACertPem ? mCACertPem->c_str() : nullptr; }

  // Whether the access list admits |peer|.
  bool verify(X509* peer) const;
  // Whether any |nid| entry of |subject| is in the sorted |list|.
  static bool matchAny(const std::vector<std::string>& list, X509_NAME* subject, int nid);

 private:
  enum class Mode { kClient, kServer };

  std::unique_ptr<Socket> handshake(int fd, Mode mode);
  void checkPeer(SSL* session) const;

  ContextPtr mImpl;
  Mutex mMutex;  // serialises handshakes
  bool mHaveCA = false;
  bool mHaveOwnCert = false;
  bool mRequireTrustedCerts;
  std::optional<std::string> mCACertPem;
  std::vector<std::string> mCNs;
  std::vector<std::string> mOUs;
};

}  // namespace qysec

#endif  // HIVE_SSL_QYSSL_H_
