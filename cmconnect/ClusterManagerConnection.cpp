#include "cmconnect/ClusterManagerConnection.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "ssl/QYSSL.h"
#include "util/StringUtilities.h"
#include "util/System.h"
#include "util/TCPSocket.h"
#include "xmlparser/XMLParser.h"

namespace {

// The account every tool uses towards the CM.
const char kAccount[] = "brisk:vqmzt";
const char kServicePath[] = "/quarry/service/";
const char kHandshakeRequest[] = "handshake.xml?ProtocolVersion=6";

template <typename Map>
void writeCounts(std::ostream& out, const Map& counts) {
  long total = 0;
  for (const auto& [key, count] : counts) {
    out << "\n\t" << key << "\t" << count;
    total += count;
  }
  out << "\n\tTotal:\t" << total;
}

double milliseconds(const Ticks& t) { return static_cast<double>(t.nanos()) / 1e6; }

}  // namespace

ClusterManagerConnection::ClusterManagerConnection(int retryInterval, int maxRetries,
                                                   bool retryOnHTTPError)
    : mRetryInterval(retryInterval), mMaxRetries(maxRetries), mRetryOnHTTPError(retryOnHTTPError) {
  [[maybe_unused]] static const bool curlReady =
      curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
}

bool ClusterManagerConnection::fail(const std::string& message, int code, bool fromCM) {
  mError = message;
  mErrorCode = code;
  mGotErrFromCM = fromCM;
  return false;
}

std::string ClusterManagerConnection::getError(int* code) const {
  if (code != nullptr) *code = mErrorCode;
  return mError;
}

bool ClusterManagerConnection::connect(const std::string& host, int port,
                                       qysec::Provider* provider, int timeout) {
  mError.clear();
  mTimeout = timeout;
  if (provider != nullptr) mCMSecurityProvider = provider;

  // A host with its own ":port" ignores |port|.
  mOrigHost = host.substr(0, host.find(':'));
  mHostPlusPort = mOrigHost.size() == host.size() ? host + ":" + std::to_string(port) : host;
  if (provider == nullptr) {
    // Plain HTTP goes to the resolved IPv4 address.
    std::string name = mOrigHost;
    std::string portText = mHostPlusPort.substr(mOrigHost.size() + 1);
    removeTrailingLeadingSpace(name);
    removeTrailingLeadingSpace(portText);
    std::string address;
    try {
      address = TCPSocket::getHostIP(name);
    } catch (const TCPSocket::exception&) {  // the name does not resolve
    }
    if (address.empty()) {
      return fail("Couldn't resolve CM host: '" + name + "'", kUnresolvedHost, false);
    }
    mHostPlusPort = address + ":" + portText;
  }

  mCurl.reset(curl_easy_init());
  if (!mCurl) return fail("Failed to initialize the curl handle", kTransferFailed, false);
  CURL* h = mCurl.get();
  // No signals: time-outs must be safe in a multi-threaded process.
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, static_cast<curl_write_callback>(&ReceiveData));
  curl_easy_setopt(h, CURLOPT_USERPWD, kAccount);
  curl_easy_setopt(h, CURLOPT_TIMEOUT, static_cast<long>(timeout));
  curl_easy_setopt(h, CURLOPT_FORBID_REUSE, mKeepAlive ? 0L : 1L);
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, mCurlErrMsg.data());
  curl_easy_setopt(h, CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
  // Never a proxy; the empty one also overrides https_proxy and all_proxy.
  if (System::getenv("http_proxy") != nullptr) curl_easy_setopt(h, CURLOPT_PROXY, "");

  XMLTree reply;
  return sendHTTPMessage(kHandshakeRequest, reply, nullptr);
}

bool ClusterManagerConnection::sendHTTPMessage(const std::string& request, XMLTree& reply,
                                               XMLTree* body) {
  if (body == nullptr) return send(request, reply, nullptr);
  std::ostringstream text;
  text << body;
  const std::string serialised = text.str();
  return send(request, reply, &serialised);
}

bool ClusterManagerConnection::sendHTTPStringMessage(const std::string& request, XMLTree& reply,
                                                     const std::string& body) {
  return send(request, reply, &body);
}

bool ClusterManagerConnection::send(const std::string& request, XMLTree& reply,
                                    const std::string* body) {
  if (!mCurl) {
    mError = "doSendHTTP: You must call connect() first!";
    return false;
  }
  Mutex::Lock lock(mCurlMutex);
  if (mSpy) mSpy->request(request, body);
  CURL* h = mCurl.get();
  if (body != nullptr) {
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, body->c_str());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, static_cast<long>(body->size()));
  } else {
    curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
  }
  std::ostringstream text;
  if (!doSendHTTPStreaming(request, &text)) return false;
  // A failed attempt may have left a longer body behind the final one.
  const std::streamoff length = text.tellp();
  return parseXMLResponse(text.str().substr(0, length < 0 ? 0 : static_cast<size_t>(length)),
                          reply);
}

bool ClusterManagerConnection::doSendHTTPStreaming(const std::string& request, std::ostream* out) {
  CURL* h = mCurl.get();
  curl_easy_setopt(h, CURLOPT_WRITEDATA, static_cast<void*>(out));
  ++mSendMsgCount;
  const bool plain = mCMSecurityProvider == nullptr ||
                     std::strcmp(mCMSecurityProvider->name(), "http") == 0;
  const std::string url =
      std::string(plain ? "http://" : "https://") + mHostPlusPort + kServicePath + request;

  long verifyPeer = 0;
  auto* tls = dynamic_cast<qysec::SSLProvider*>(mCMSecurityProvider);
  if (tls != nullptr && tls->getTrustedCertsRequired()) {
    const char* ca = tls->getCACertPem();
    if (ca != nullptr && *ca != '\0') curl_easy_setopt(h, CURLOPT_CAINFO, ca);
    verifyPeer = 1;
  }
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, verifyPeer);
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_TCP_NODELAY, 1L);
  if (mMaxRetries <= 0) return reportTransferFailure(CURLE_OK, 0);

  const std::streampos start = out->tellp();
  long pause = mRetryInterval;
  CURLcode result = CURLE_OK;
  long httpCode = 0;
  for (int attempt = 0;;) {
    // Every attempt writes its body from the same place.
    out->clear();
    if (start != std::streampos(-1)) out->seekp(start);
    mCurlErrMsg[0] = '\0';
    mReqTimer.start();
    result = curl_easy_perform(h);
    mReqTimer.stop();
    ++mRequestCount;
    ++mCurlCodeMap[static_cast<int>(result)];
    httpCode = 0;

    if (result == CURLE_COULDNT_RESOLVE_HOST) {
      return fail("Couldn't resolve CM host: '" + mOrigHost + "'", kUnresolvedHost, false);
    }
    if (result == CURLE_WRITE_ERROR) return fail("Couldn't receive CM response", kNoResponse, false);
    const bool gotStatus = result == CURLE_OK;
    if (gotStatus) {
      curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &httpCode);
      ++mHTTPCodeMap[httpCode];
      if (httpCode == 200) return true;
    } else {
      // Transport failures back off: 2, 3, 4 ... intervals.
      pause += mRetryInterval;
    }
    if (++attempt >= mMaxRetries) break;
    if (gotStatus && !mRetryOnHTTPError) break;
    pauseBeforeRetry(pause);
  }
  return reportTransferFailure(result, httpCode);
}

void ClusterManagerConnection::pauseBeforeRetry(long ms) { System::sleep(ms); }

bool ClusterManagerConnection::reportTransferFailure(CURLcode result, long httpCode) {
  if (result == CURLE_OK && httpCode == 401) {
    return fail("Invalid password for user 'brisk'", kBadPassword, false);
  }
  if (result == CURLE_COULDNT_CONNECT) {
    return fail("Unable to connect to CM: '" + mOrigHost + "'", kUnreachable, false);
  }
  if (result == CURLE_OPERATION_TIMEDOUT &&
      std::strcmp(mCurlErrMsg.data(), "connect() timed out!") == 0) {
    return fail("Unable to connect to CM (timed out): '" + mOrigHost + "'", kConnectTimedOut,
                false);
  }
  const std::string detail =
      result == CURLE_OK ? "HTTP code " + std::to_string(httpCode) : mCurlErrMsg.data();
  return fail("Sending HTTP command failed with curl error(" + std::to_string(result) + "): " +
                  detail, kTransferFailed, false);
}

size_t ClusterManagerConnection::ReceiveData(char* data, size_t size, size_t count, void* stream) {
  auto* out = static_cast<std::ostream*>(stream);
  const size_t bytes = size * count;
  if (out == nullptr || !out->write(data, static_cast<std::streamsize>(bytes))) return 0;
  return bytes;
}

bool ClusterManagerConnection::parseXMLResponse(const std::string& text, XMLTree& tree) {
  try {
    XMLParser::getInstance().parse(text, tree);
  } catch (const XMLParser::XMLParserException& e) {
    return fail("XML parser threw exception: " + std::string(e.what()) + " (XML is '" + text + "')",
                kBadXML, false);
  }
  const XMLTree* quarry = tree.getSubTree("Quarry");
  if (quarry == nullptr) return fail("Response does not have <Quarry> tag", kNoQuarryTag, false);
  if ((*quarry)["Status"] == "Success") return true;

  std::string message = (*quarry)["ErrorMessage"];
  if (message.empty()) message = "request failed";
  const std::string& codeText = (*quarry)["ErrorCode"];
  if (codeText.empty()) return fail(message, kCMFailed, true);
  // Clamped so that the shifted code stays an int.
  const long n = std::clamp(std::strtol(codeText.c_str(), nullptr, 10), -1000000000L, 1000000000L);
  if (n != 0) return fail(message, static_cast<int>(kCMCodeBase + n), true);
  return fail(message + ": Unparseable error code \"" + codeText + "\" sent by CM.",
              kUnparseableCode, true);
}

void ClusterManagerConnection::escape(std::string& text) {
  char* escaped = curl_escape(text.c_str(), 0);
  if (escaped == nullptr) return;
  text = escaped;
  curl_free(escaped);
}

void ClusterManagerConnection::dumpStatistics(std::ostream& out) const {
  const int intervals = mReqTimer.numIntervals();
  const double totalMs = milliseconds(mReqTimer.totalTime());
  out << "Cluster Manager Connection stats:"
      << "\nRetry Interval: " << mRetryInterval << " ms"
      << "\nMax Retries per request: " << mMaxRetries
      << "\nRetry on HTTP error: " << (mRetryOnHTTPError ? "true" : "false")
      << "\nRequest Time: total: " << mReqTimer.totalSeconds() << " s  "
      << "intervals: " << intervals << " [" << milliseconds(mReqTimer.shortest()) << ","
      << milliseconds(mReqTimer.longest()) << " ms]   "
      << "avg: " << (intervals > 0 ? totalMs / intervals : 0.0) << " ms"
      << "\nNumber of sendHTTPMessage calls: " << mSendMsgCount
      << "\nNumber of requests sent to CM (including retries): " << mRequestCount
      << "\nNumber of requests resulting in various HTTP codes:";
  writeCounts(out, mHTTPCodeMap);
  out << "\n\nNumber of requests resulting in various CURL codes:";
  writeCounts(out, mCurlCodeMap);
  out << "\n\n";
}

void ClusterManagerConnection::replaceSpy(std::shared_ptr<ClusterManagerSpy> spy) {
  Mutex::Lock lock(mCurlMutex);
  mSpy = std::move(spy);
}

void ClusterManagerConnection::removeSpy() { replaceSpy(nullptr); }
