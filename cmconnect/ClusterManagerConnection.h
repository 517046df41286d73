// HTTP(S) client of the cluster manager (CM) over one libcurl handle:
// connect() makes the CM's handshake, requests go below "/quarry/service/",
// failed transfers are retried with a pause, and replies must carry the
// "Quarry" envelope. Failures return false; getError() tells text and code.
#ifndef HIVE_CMCONNECT_CLUSTERMANAGERCONNECTION_H_
#define HIVE_CMCONNECT_CLUSTERMANAGERCONNECTION_H_

#include <curl/curl.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <string>

#include "util/Mutex.h"
#include "util/Timer.h"
#include "xmlparser/XMLTree.h"

namespace qysec {
class Provider;
}

// Observer told about every request before it is sent.
class ClusterManagerSpy {
 public:
  virtual ~ClusterManagerSpy() = default;
  // |body| is null for a GET.
  virtual void request(const std::string& request, const std::string* body) = 0;
};

class ClusterManagerConnection {
 public:
  enum ErrorCode {
    kNoError = 3000,           // initial value
    kCMFailed = 3002,          // Status not "Success", no ErrorCode
    kNoQuarryTag = 3003,       // reply without the envelope
    kBadXML = 3004,            // reply not parseable
    kUnresolvedHost = 3006,    // CM name cannot be resolved
    kBadPassword = 3007,       // HTTP 401
    kConnectTimedOut = 3008,   // connect time-out
    kUnreachable = 3009,       // connection refused or unreachable
    kTransferFailed = 3010,    // any other transfer failure
    kUnparseableCode = 3014,   // ErrorCode that is not a non-zero number
    kNoResponse = 3020,        // reply could not be received
    kCMCodeBase = 3100,        // the CM's own ErrorCode n is reported as 3100 + n
  };

  // |retryInterval| in ms; |maxRetries| attempts per request;
  // |retryOnHTTPError| retries replies with a status other than 200.
  ClusterManagerConnection(int retryInterval, int maxRetries, bool retryOnHTTPError);
  virtual ~ClusterManagerConnection() = default;

  // A new handle for |host| (its own ":port" overrides |port|), then the
  // handshake. |provider| (may be null) selects https unless named "http";
  // without one plain HTTP goes to the resolved address. |timeout| in
  // seconds bounds every transfer. Not while another thread sends.
  bool connect(const std::string& host, int port, qysec::Provider* provider, int timeout);

  // Sends |request| (below the service path) and parses the reply into
  // |reply|; a |body| makes it a POST of the tree. Thread-safe.
  bool sendHTTPMessage(const std::string& request, XMLTree& reply, XMLTree* body);
  // The same with a ready text body (always a POST).
  bool sendHTTPStringMessage(const std::string& request, XMLTree& reply, const std::string& body);

  // Text of the last failure; its code is stored through |code| if non-null.
  std::string getError(int* code = nullptr) const;
  // True when the last failure was reported by the CM in a well-formed reply.
  bool gotErrFromCM() const { return mGotErrFromCM; }

  void setRetryInterval(int ms) { mRetryInterval = ms; }
  void setMaxRetries(int count) { mMaxRetries = count; }
  bool retryOnHTTPError() const { return mRetryOnHTTPError; }
  const std::string& getHostPlusPort() const { return mHostPlusPort; }
  bool getKeepAlive() const { return mKeepAlive; }
  // Takes effect at the next connect().
  void setKeepAlive(bool keepAlive) { mKeepAlive = keepAlive; }

  // Replaces |text| by its URL-escaped form.
  static void escape(std::string& text);

  // Writes the retry settings, transfer times and per-status counts.
  void dumpStatistics(std::ostream& out) const;

  void replaceSpy(std::shared_ptr<ClusterManagerSpy> spy);
  void removeSpy();

 protected:
  // The wait between two transfer attempts; tests see the pauses through it
  // without waiting them out.
  virtual void pauseBeforeRetry(long ms);

 private:
  struct HandleFree {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
  };

  bool send(const std::string& request, XMLTree& reply, const std::string* body);
  bool doSendHTTPStreaming(const std::string& request, std::ostream* out);
  bool reportTransferFailure(CURLcode result, long httpCode);
  bool parseXMLResponse(const std::string& text, XMLTree& tree);
  bool fail(const std::string& message, int code, bool fromCM);

  static size_t ReceiveData(char* data, size_t size, size_t count, void* stream);

  std::unique_ptr<CURL, HandleFree> mCurl;
  Mutex mCurlMutex;
  std::string mHostPlusPort;
  std::string mOrigHost;
  std::string mError;
  int mErrorCode = kNoError;
  bool mGotErrFromCM = true;
  int mRetryInterval;
  int mMaxRetries;
  bool mRetryOnHTTPError;
  bool mKeepAlive = false;
  int mSendMsgCount = 0;
  int mRequestCount = 0;
  std::map<int64_t, int> mHTTPCodeMap;
  std::map<int, int> mCurlCodeMap;
  Timer mReqTimer;
  int mTimeout = 0;
  std::array<char, CURL_ERROR_SIZE> mCurlErrMsg{};
  std::shared_ptr<ClusterManagerSpy> mSpy;
  qysec::Provider* mCMSecurityProvider = nullptr;
};

#endif  // HIVE_CMCONNECT_CLUSTERMANAGERCONNECTION_H_
