#include "ssl/QYSSL.h"

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string_view>
#include <utility>

namespace qysec {

namespace {

const char kStrongCiphers[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305";
const char kCurve[] = "prime256v1";

std::string errorText(unsigned long code) {
  char buf[256];
  ERR_error_string_n(code, buf, sizeof buf);
  return buf;
}

[[noreturn]] void throwLibraryError() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  throw std::runtime_error(errorText(code));
}

[[noreturn]] void handshakeFailure(const std::string& reason) {
  throw HandshakeError("SSL handshake failure: " + reason);
}

struct Utf8Free {  // OPENSSL_free is a macro
  void operator()(unsigned char* text) const { OPENSSL_free(text); }
};

// Parses one "type=value" access-list entry; throws for a malformed one.
std::pair<std::string, std::string> splitACLEntry(const std::string& piece) {
  const auto invalid = [&piece](const char* why) {
    return std::runtime_error(std::string("Invalid allow option (") + why + ") '" + piece + "'");
  };
  const size_t eq = piece.find('=');
  if (eq == std::string::npos) throw invalid("no equal");
  if (eq + 1 == piece.size()) throw invalid("no value");
  std::string type = piece.substr(0, eq);
  if (type != "cn" && type != "ou") throw invalid("unknown type");
  return {type, piece.substr(eq + 1)};
}

// Shared result rules of read and write.
int sessionResult(SSL* session, int result) {
  if (result > 0) return result;
  const int error = SSL_get_error(session, result);
  ERR_clear_error();
  if (result == 0) return error == SSL_ERROR_ZERO_RETURN ? 0 : -1;
  if (result == -1 && error == SSL_ERROR_WANT_READ) {
    throw std::runtime_error("peer requested renegotiation");
  }
  return result;
}

}  // namespace

SSLSocket::SSLSocket(SessionPtr session) : mImpl(std::move(session)) {}

SSLSocket::~SSLSocket() {
  if (mImpl) SSL_shutdown(mImpl.get());
  mImpl.reset();
  ERR_clear_error();
}

int SSLSocket::write(const void* data, int length) {
  ERR_clear_error();
  return sessionResult(mImpl.get(), SSL_write(mImpl.get(), data, length));
}

int SSLSocket::read(void* data, int length) {
  ERR_clear_error();
  return sessionResult(mImpl.get(), SSL_read(mImpl.get(), data, length));
}

bool SSLSocket::isReadable() { return SSL_pending(mImpl.get()) > 0; }

SSLProvider::SSLProvider(bool requireTrustedCerts) : mRequireTrustedCerts(requireTrustedCerts) {
  [[maybe_unused]] static const bool libraryReady =
      OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  mImpl.reset(SSL_CTX_new(TLS_method()));
  if (!mImpl) throw std::runtime_error("SSL_CTX_new");
  SSL_CTX* ctx = mImpl.get();
  // Pin the protocol to TLS 1.2 in both directions.
  if (SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(ctx, TLS1_2_VERSION) != 1) {
    throw std::runtime_error("TLSv1_2_method");
  }
  if (!requireTrustedCerts) return;
  if (SSL_CTX_set_cipher_list(ctx, kStrongCiphers) != 1) {
    throw std::runtime_error("SSL_CTX_set_cipher_list");
  }
  if (OBJ_sn2nid(kCurve) == NID_undef) throw std::runtime_error("unknown curve name");
  if (SSL_CTX_set1_groups_list(ctx, kCurve) != 1) {
    throw std::runtime_error("unable to create curve");
  }
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
}

void SSLProvider::setTrustedCACerts(const char* file) {
  mCACertPem = file ? std::optional<std::string>(file) : std::nullopt;
  if (SSL_CTX_load_verify_locations(mImpl.get(), file, nullptr) != 1) throwLibraryError();
  mHaveCA = true;
}

void SSLProvider::setOwnCertAndKey(const char* file) {
  if (SSL_CTX_use_certificate_chain_file(mImpl.get(), file) != 1) throwLibraryError();
  if (SSL_CTX_use_PrivateKey_file(mImpl.get(), file, SSL_FILETYPE_PEM) != 1) {
    throwLibraryError();
  }
  mHaveOwnCert = true;
}

void SSLProvider::setAllowedCiphers(const char* list) {
  if (SSL_CTX_set_cipher_list(mImpl.get(), list) != 1) throwLibraryError();
}

void SSLProvider::setACL(const char* acl) {
  if (acl == nullptr) return;
  std::istringstream pieces(acl);
  for (std::string piece; std::getline(pieces, piece, ',');) {
    if (piece.empty()) continue;
    auto [type, value] = splitACLEntry(piece);
    std::vector<std::string>& list = type == "cn" ? mCNs : mOUs;
    list.push_back(std::move(value));
    // Kept sorted so that matchAny can search by bisection.
    std::sort(list.begin(), list.end());
  }
}

std::unique_ptr<Socket> SSLProvider::accept(int fd) { return handshake(fd, Mode::kServer); }

std::unique_ptr<Socket> SSLProvider::connect(int fd) { return handshake(fd, Mode::kClient); }

std::unique_ptr<Socket> SSLProvider::handshake(int fd, Mode mode) {
  Mutex::Lock lock(mMutex);
  ERR_clear_error();
  SessionPtr session(SSL_new(mImpl.get()));
  std::unique_ptr<BIO, Deleter<BIO_free>> bio(BIO_new_socket(fd, BIO_NOCLOSE));
  if (!session || !bio) handshakeFailure(errorText(ERR_get_error()));
  // One reference serves both directions; the session owns it from here.
  SSL_set_bio(session.get(), bio.get(), bio.get());
  bio.release();
  const int result = mode == Mode::kServer ? SSL_accept(session.get()) : SSL_connect(session.get());
  if (result != 1) {
    const int error = SSL_get_error(session.get(), result);
    const std::string reason =
        errorText(error == SSL_ERROR_SSL ? ERR_get_error() : static_cast<unsigned long>(error));
    ERR_clear_error();
    handshakeFailure(reason);
  }
  if (mRequireTrustedCerts) checkPeer(session.get());
  return std::make_unique<SSLSocket>(std::move(session));
}

void SSLProvider::checkPeer(SSL* session) const {
  std::unique_ptr<X509, Deleter<X509_free>> peer(SSL_get1_peer_certificate(session));
  if (!peer) handshakeFailure("no peer certificate");
  if (SSL_get_verify_result(session) != X509_V_OK) handshakeFailure("peer not verified");
  if (!verify(peer.get())) handshakeFailure("peer not allowed");
}

bool SSLProvider::verify(X509* peer) const {
  if (!mRequireTrustedCerts || (mCNs.empty() && mOUs.empty())) return true;
  X509_NAME* subject = X509_get_subject_name(peer);
  if (subject == nullptr) return false;
  return matchAny(mCNs, subject, NID_commonName) ||
         matchAny(mOUs, subject, NID_organizationalUnitName);
}

bool SSLProvider::matchAny(const std::vector<std::string>& list, X509_NAME* subject, int nid) {
  for (int i = X509_NAME_get_index_by_NID(subject, nid, -1); i >= 0;
       i = X509_NAME_get_index_by_NID(subject, nid, i)) {
    ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i));
    unsigned char* raw = nullptr;
    const int length = ASN1_STRING_to_UTF8(&raw, data);
    std::unique_ptr<unsigned char, Utf8Free> utf8(raw);
    if (length <= 0) continue;
    const std::string_view value(reinterpret_cast<const char*>(utf8.get()), length);
    if (std::binary_search(list.begin(), list.end(), value, std::less<>())) return true;
  }
  return false;
}

}  // namespace qysec
