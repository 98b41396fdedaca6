// The broker host's HTTP server; see oxhttpserver.h. Boost.Beast reads each request (a bounded
// head, no body) and writes the replies; Boost.Asio runs the connections on a small pool of
// threads, each connection on a strand of its own; uriparser takes the targets apart.
#include "oxhttpserver.h"

#include <uriparser/Uri.h>

#include <algorithm>
#include <array>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/filesystem.hpp>
#include <boost/optional.hpp>
#include <cctype>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unordered_map>

#include "kilog.h"
#include "oxbroker.h"
#include "oxbrokerhost.h"
#include "oxerror.h"
#include "oxhttpdocuments.h"
#include "oxlive.h"
#include "toolsupport.h"

namespace oxhttp {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace fs = boost::filesystem;
using tcp = asio::ip::tcp;

constexpr const char* kCategory = "net.http";
constexpr const char* kDeviceModule = "OXVideoDevice";
// Connections that arrive together wait in the listen queue, not for their SYN to be sent again.
constexpr int kBacklog = 1024;
// The head of a request must have come within this long, also between two requests of one
// connection.
constexpr auto kReadTimeout = std::chrono::seconds(5);
// A reply must have been taken within this long...
constexpr auto kWriteTimeout = std::chrono::seconds(5);
// ...a part of a live view within this long: a viewer that does not read is dropped.
constexpr auto kPartTimeout = std::chrono::seconds(1);
// After the last reply of a connection, what the client still sends is dropped for this long, up
// to this much.
constexpr auto kLinger = std::chrono::seconds(1);
constexpr std::size_t kMaxDrained = 1 << 20;
// After a failed accept (no descriptor left), the next is tried this much later.
constexpr auto kAcceptPause = std::chrono::milliseconds(50);
// Files of the pages larger than this are not served.
constexpr std::uintmax_t kMaxFile = 1 << 20;
// Texts from a request are quoted in a refusal up to this length.
constexpr std::size_t kMaxQuoted = 200;

// A reply, before it is written.
struct Reply {
  http::status fStatus = http::status::ok;
  std::string fType;
  std::string fBody;
  bool fClose = false;  // the connection closes after it
  std::vector<std::pair<http::field, std::string>> fHeaders;
  std::shared_ptr<LiveStream> fLive;  // a live view follows instead of fBody
};

Reply jsonReply(const Json& pDocument, http::status pStatus = http::status::ok) {
  Reply reply;
  reply.fStatus = pStatus;
  reply.fType = "application/json";
  // Names from a request may be any bytes: what is not UTF-8 is shown replaced.
  reply.fBody = pDocument.dump(2, ' ', false, Json::error_handler_t::replace);
  return reply;
}

Reply errorReply(http::status pStatus, const std::string& pText) {
  return jsonReply(Json{{"error", pText}, {"status", static_cast<int>(pStatus)}}, pStatus);
}

std::string quoted(const std::string& pText) {
  return pText.size() <= kMaxQuoted ? pText : pText.substr(0, kMaxQuoted) + "...";
}

// The target of a request, taken apart.
struct Target {
  std::string fPath;                               // as given, for texts
  std::vector<std::string> fSegments;              // of the path, unescaped
  std::multimap<std::string, std::string> fQuery;  // unescaped
};

std::string unescaped(const char* pFirst, const char* pAfterLast) {
  std::string text(pFirst, pAfterLast);
  text.resize(static_cast<std::size_t>(uriUnescapeInPlaceA(&text[0]) - text.data()));
  return text;
}

// False when pText is not a path with an optional query ("/live/stream?fps=5"), or its escapes
// or query cannot be read.
bool parseTarget(const std::string& pText, Target& pTarget) {
  if (pText.empty() || pText[0] != '/') return false;
  UriUriA uri;
  const char* error = nullptr;
  if (uriParseSingleUriA(&uri, pText.c_str(), &error) != URI_SUCCESS) return false;
  bool good = uri.scheme.first == nullptr && uri.hostText.first == nullptr;
  pTarget.fPath = pText.substr(0, pText.find('?'));
  for (const UriPathSegmentA* segment = uri.pathHead; good && segment != nullptr;
       segment = segment->next) {
    pTarget.fSegments.push_back(unescaped(segment->text.first, segment->text.afterLast));
  }
  if (good && uri.query.first != nullptr && uri.query.first != uri.query.afterLast) {
    UriQueryListA* list = nullptr;
    int count = 0;
    good =
        uriDissectQueryMallocA(&list, &count, uri.query.first, uri.query.afterLast) == URI_SUCCESS;
    for (const UriQueryListA* item = list; good && item != nullptr; item = item->next) {
      pTarget.fQuery.emplace(item->key != nullptr ? item->key : "",
                             item->value != nullptr ? item->value : "");
    }
    uriFreeQueryListA(list);
  }
  uriFreeUriMembersA(&uri);
  return good;
}

const char* contentType(const std::string& pName) {
  static const std::pair<const char*, const char*> kTypes[] = {
      {".html", "text/html; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".png", "image/png"},
      {".svg", "image/svg+xml"},
      {".ico", "image/x-icon"}};
  for (const auto& type : kTypes) {
    const std::size_t length = std::char_traits<char>::length(type.first);
    if (pName.size() > length && pName.compare(pName.size() - length, length, type.first) == 0) {
      return type.second;
    }
  }
  return "application/octet-stream";
}

}  // namespace

bool parseListen(const std::string& pText, std::string& pAddress, int& pPort, std::string& pError) {
  const std::size_t colon = pText.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == pText.size()) {
    pError = "'" + pText + "' is not ADDRESS:PORT (e.g. 127.0.0.1:7762, or off)";
    return false;
  }
  std::string address = pText.substr(0, colon);
  if (address.front() == '[' && address.back() == ']')
    address = address.substr(1, address.size() - 2);
  const std::string port = pText.substr(colon + 1);
  std::size_t used = 0;
  int value = -1;
  try {
    value = std::stoi(port, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used != port.size() || value < 0 || value > 65535 || address.empty()) {
    pError = "'" + pText + "': the port must be a number from 0 to 65535";
    return false;
  }
  pAddress = address;
  pPort = value;
  return true;
}

class HttpServer::Impl {
 public:
  class Connection;
  Impl(boost::shared_ptr<OX::OXBroker> pBroker, const OX::OXBrokerHost& pHost,
       const Options& pOptions)
      : fBroker(std::move(pBroker)),
        fHost(pHost),
        fOptions(pOptions),
        fLive(std::max(0, pOptions.fMaxLiveViews)),
        fAcceptor(asio::make_strand(fIo)),
        fAcceptPause(fAcceptor.get_executor()) {}
  ~Impl() { stop(); }
  void start();
  void stop();
  // The reply to a GET of pTarget by pClient ("address:port"). Any thread.
  Reply answer(const std::string& pTarget, const std::string& pClient);
  // A connection ends (its destructor).
  void closed(Connection* pConnection);
  std::string fUrl;

 private:
  void accept();
  void admit(tcp::socket pSocket);
  Reply route(const Target& pTarget, const std::string& pClient);
  // A file of the pages' directory, or false when there is no such file to serve.
  bool readFile(const std::string& pName, Reply& pReply) const;
  Reply page(const std::string& pName) const;
  Reply liveStream(const Target& pTarget, const std::string& pClient);
  bool hasModule(const std::string& pName) const;

  boost::shared_ptr<OX::OXBroker> fBroker;
  const OX::OXBrokerHost& fHost;
  const Options fOptions;
  fs::path fPages;  // canonical
  LiveViews fLive;
  // The open connections, for stop; before fIo, whose end may still end connections.
  std::mutex fMutex;
  std::unordered_map<Connection*, std::weak_ptr<Connection>> fConnections;
  asio::io_context fIo;
  tcp::acceptor fAcceptor;  // on a strand of its own
  asio::steady_timer fAcceptPause;
  std::vector<std::thread> fThreads;
  bool fStarted = false;
};

// One client's connection: requests read one after the other, each answered, or one live view.
// Every handler runs on the connection's strand.
class HttpServer::Impl::Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(HttpServer::Impl& pServer, tcp::socket&& pSocket)
      : fServer(pServer), fStream(std::move(pSocket)), fTimer(fStream.get_executor()) {
    beast::error_code error;
    const tcp::endpoint peer = fStream.socket().remote_endpoint(error);
    fClient = error ? "unknown" : peer.address().to_string() + ":" + std::to_string(peer.port());
  }
  ~Connection() { fServer.closed(this); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void start() { read(); }
  // Ends the connection, whatever it does. Any thread.
  void close() {
    asio::post(fStream.get_executor(), [self = shared_from_this()] { self->shut(); });
  }

 private:
  void shut() {
    fTimer.cancel();
    beast::error_code ignored;
    fStream.socket().shutdown(tcp::socket::shutdown_both, ignored);
    fStream.close();
  }

  void read() {
    fParser.emplace();
    fParser->header_limit(static_cast<std::uint32_t>(kMaxHead));
    fStream.expires_after(kReadTimeout);
    http::async_read(fStream, fBuffer, *fParser,
                     [self = shared_from_this()](beast::error_code pError, std::size_t) {
                       self->onRead(pError);
                     });
  }

  void onRead(beast::error_code pError) {
    // Gone, idle for too long, or stopped: nothing to answer.
    if (pError == http::error::end_of_stream || pError == beast::error::timeout ||
        pError == asio::error::operation_aborted || pError == asio::error::connection_reset ||
        pError == asio::error::eof) {
      shut();
      return;
    }
    const http::request<http::empty_body>& request = fParser->get();
    const unsigned version = fParser->is_header_done() ? request.version() : 11;
    Reply reply;
    if (pError == http::error::header_limit || pError == http::error::buffer_overflow) {
      reply = errorReply(
          http::status::request_header_fields_too_large,
          "the request line and headers take more than " + std::to_string(kMaxHead) + " bytes");
    } else if (fParser->is_header_done() && request.method() != http::verb::get) {
      reply = errorReply(http::status::method_not_allowed,
                         "only GET is served, not " + quoted(std::string(request.method_string())));
      reply.fHeaders.emplace_back(http::field::allow, "GET");
    } else if (pError == http::error::unexpected_body) {
      reply = errorReply(http::status::bad_request, "a request here has no body");
    } else if (pError) {
      reply = errorReply(http::status::bad_request, "malformed request: " + pError.message());
    } else {
      reply = fServer.answer(std::string(request.target()), fClient);
    }
    if (reply.fLive) {
      startLive(std::move(reply.fLive), version);
      return;
    }
    send(std::move(reply), version, !pError && !reply.fClose && request.keep_alive());
  }

  void send(Reply&& pReply, unsigned pVersion, bool pKeepAlive) {
    fResponse = {};
    fResponse.result(pReply.fStatus);
    fResponse.version(pVersion);
    fResponse.set(http::field::content_type, pReply.fType);
    fResponse.set(http::field::cache_control, "no-store");
    for (const auto& header : pReply.fHeaders) fResponse.set(header.first, header.second);
    fResponse.body() = std::move(pReply.fBody);
    fResponse.keep_alive(pKeepAlive);
    fResponse.prepare_payload();
    fStream.expires_after(kWriteTimeout);
    http::async_write(
        fStream, fResponse,
        [self = shared_from_this(), pKeepAlive](beast::error_code pError, std::size_t) {
          if (pError) {
            self->shut();
          } else if (pKeepAlive) {
            self->read();
          } else {
            self->linger();
          }
        });
  }

  // After the last reply, what the client still sends is read and dropped for a short while, so
  // that a refusal reaches it rather than a reset.
  void linger() {
    beast::error_code ignored;
    fStream.socket().shutdown(tcp::socket::shutdown_send, ignored);
    fStream.expires_after(kLinger);
    drain();
  }
  void drain() {
    fStream.async_read_some(
        asio::buffer(fScratch),
        [self = shared_from_this()](beast::error_code pError, std::size_t pRead) {
          self->fDrained += pRead;
          if (pError || self->fDrained > kMaxDrained) {
            self->shut();
          } else {
            self->drain();
          }
        });
  }

  // The head of a multipart stream without a length: its parts follow until the connection
  // closes.
  void startLive(std::shared_ptr<LiveStream> pLive, unsigned pVersion) {
    fLive = std::move(pLive);
    fHead.emplace(http::status::ok, pVersion);
    fHead->set(http::field::content_type,
               std::string("multipart/x-mixed-replace; boundary=") + kBoundary);
    fHead->set(http::field::cache_control, "no-store");
    fHead->keep_alive(false);
    fHeadWriter.emplace(*fHead);
    fStream.expires_after(kPartTimeout);
    http::async_write_header(fStream, *fHeadWriter,
                             [self = shared_from_this()](beast::error_code pError, std::size_t) {
                               if (pError) {
                                 self->shut();
                               } else {
                                 self->liveStep();
                               }
                             });
  }

  void liveStep() {
    fPart.clear();  // keeps its capacity: a stream allocates for its first parts only
    const LiveStream::Step step = fLive->step([this](const char* pData, std::size_t pSize) {
      fPart.append(pData, pSize);
      return true;
    });
    auto self = shared_from_this();
    switch (step) {
      case LiveStream::Step::kWrite:
        fStream.expires_after(kPartTimeout);
        asio::async_write(fStream, asio::buffer(fPart),
                          [self](beast::error_code pError, std::size_t) {
                            if (pError) {
                              self->shut();
                            } else {
                              self->liveStep();
                            }
                          });
        return;
      case LiveStream::Step::kWait:
        fTimer.expires_at(fLive->wakeAt());
        fTimer.async_wait([self](beast::error_code pError) {
          if (!pError) self->liveStep();
        });
        return;
      case LiveStream::Step::kEnd:
        shut();
        return;
    }
  }

  HttpServer::Impl& fServer;
  beast::tcp_stream fStream;
  asio::steady_timer fTimer;
  std::string fClient;
  // A request's head, and a little more that the client sent on.
  beast::flat_buffer fBuffer{2 * kMaxHead};
  boost::optional<http::request_parser<http::empty_body>> fParser;
  http::response<http::string_body> fResponse;
  // A live view: the head of its stream, and its part being written.
  std::shared_ptr<LiveStream> fLive;
  boost::optional<http::response<http::empty_body>> fHead;
  boost::optional<http::response_serializer<http::empty_body>> fHeadWriter;
  std::string fPart;
  // What linger reads and drops.
  std::array<char, 4096> fScratch;
  std::size_t fDrained = 0;
};

void HttpServer::Impl::closed(Connection* pConnection) {
  std::lock_guard<std::mutex> guard(fMutex);
  fConnections.erase(pConnection);
}

bool HttpServer::Impl::readFile(const std::string& pName, Reply& pReply) const {
  // Only a plain file of the pages' own directory: no other directory, no dot file, no link
  // that leads out.
  const bool plain =
      !pName.empty() && pName[0] != '.' && std::all_of(pName.begin(), pName.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '_';
      });
  if (!plain) return false;
  boost::system::error_code error;
  const fs::path path = fs::canonical(fPages / pName, error);
  if (error || path.parent_path() != fPages || !fs::is_regular_file(path, error) ||
      fs::file_size(path, error) > kMaxFile || error) {
    return false;
  }
  std::ifstream file(path.string(), std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  if (!file) return false;
  pReply.fType = contentType(pName);
  pReply.fBody = text.str();
  return true;
}

Reply HttpServer::Impl::page(const std::string& pName) const {
  Reply reply;
  if (!readFile(pName, reply)) {
    return errorReply(http::status::internal_server_error,
                      "the page " + pName + " is missing from " + fPages.string());
  }
  return reply;
}

bool HttpServer::Impl::hasModule(const std::string& pName) const {
  return static_cast<bool>(fBroker->getModuleCoreByName(pName));
}

Reply HttpServer::Impl::answer(const std::string& pTarget, const std::string& pClient) {
  Target target;
  if (!parseTarget(pTarget, target)) {
    return errorReply(http::status::bad_request,
                      "malformed request target '" + quoted(pTarget) +
                          "': a path, then ?name=value&... with %XX escapes");
  }
  try {
    return route(target, pClient);
  } catch (const OX::OXError& error) {
    ki::log::LogStream(ki::log::kLogWarning, kCategory, "", "answer", 0)
        << target.fPath << ": " << error.getDescription();
    return errorReply(http::status::internal_server_error, error.getDescription());
  } catch (const std::exception& error) {
    ki::log::LogStream(ki::log::kLogWarning, kCategory, "", "answer", 0)
        << target.fPath << ": " << error.what();
    return errorReply(http::status::internal_server_error, error.what());
  }
}

Reply HttpServer::Impl::route(const Target& pTarget, const std::string& pClient) {
  const std::string& path = pTarget.fPath;
  const std::vector<std::string>& segments = pTarget.fSegments;
  if (path == "/") return page("index.html");
  if (path == "/live") return page("live.html");
  if (path == "/live/stream") return liveStream(pTarget, pClient);
  if (path == "/api/host") return jsonReply(hostDocument(fBroker, fHost.getStatus(), fLive));
  if (path == "/api/live") return jsonReply(liveDocument(fLive));
  if (path == "/api/formats") return jsonReply(formatsDocument());
  if (path == "/metrics") {
    Reply reply;
    reply.fType = "text/plain; version=0.0.4; charset=utf-8";
    reply.fBody = metricsText(fHost.getStatus(), moduleStatuses(fBroker), fLive);
    return reply;
  }
  const bool api = segments.size() == 3 && segments[0] == "api";
  if (segments.size() == 2 || api) {
    const std::string& kind = segments[api ? 1 : 0];
    const std::string& name = segments.back();
    if (kind == "modules") {
      if (!hasModule(name)) {
        return errorReply(http::status::not_found, "no module " + quoted(name) + " on this host");
      }
      if (!api) return page("module.html");
      return jsonReply(moduleDocument(name, fBroker->getProxy(name, 0)->describe()));
    }
    if (kind == "devices") {
      ModuleStatus status;
      if (!moduleStatus(fBroker, name, status)) {
        return errorReply(http::status::not_found,
                          "no module " + quoted(name) + " with a status on this host");
      }
      return api ? jsonReply(statusDocument(status, fLive)) : page("device.html");
    }
    Reply reply;
    if (!api && kind == "static" && readFile(name, reply)) return reply;
  }
  return errorReply(http::status::not_found, "nothing at " + quoted(path));
}

Reply HttpServer::Impl::liveStream(const Target& pTarget, const std::string& pClient) {
  LiveRequest request;
  try {
    request = parseLiveRequest(pTarget.fQuery);
  } catch (const std::invalid_argument& error) {
    return errorReply(http::status::bad_request, error.what());
  }
  if (!hasModule(kDeviceModule)) {
    return errorReply(http::status::not_found,
                      std::string("no module ") + kDeviceModule + " on this host");
  }
  std::shared_ptr<LiveView> view = fLive.open(request, pClient);
  if (!view) {
    Reply reply = errorReply(http::status::too_many_requests,
                             "at most " + std::to_string(fLive.limit()) +
                                 " live views at once; close one (GET /api/live lists them)");
    reply.fClose = true;
    reply.fHeaders.emplace_back(http::field::retry_after, "5");
    return reply;
  }
  Reply reply;
  try {
    reply.fLive = std::make_shared<LiveStream>(fBroker->getProxy(kDeviceModule, 0), fLive, view);
  } catch (const OX::OXError& error) {
    fLive.close(view);
    return errorReply(http::status::bad_request, error.getDescription());
  }
  return reply;
}

void HttpServer::Impl::accept() {
  fAcceptor.async_accept(asio::make_strand(fIo),
                         [this](beast::error_code pError, tcp::socket pSocket) {
                           if (!fAcceptor.is_open()) return;  // stopped
                           if (!pError) {
                             admit(std::move(pSocket));
                             accept();
                             return;
                           }
                           // Out of descriptors, most likely: the connections that hold them end on
                           // their own.
                           ki::log::LogStream(ki::log::kLogWarning, kCategory, "", "accept", 0)
                               << "cannot accept a connection: " << pError.message();
                           fAcceptPause.expires_after(kAcceptPause);
                           fAcceptPause.async_wait([this](beast::error_code pWaited) {
                             if (!pWaited && fAcceptor.is_open()) accept();
                           });
                         });
}

void HttpServer::Impl::admit(tcp::socket pSocket) {
  std::shared_ptr<Connection> connection;
  {
    std::lock_guard<std::mutex> guard(fMutex);
    if (static_cast<int>(fConnections.size()) < fOptions.fMaxConnections) {
      connection = std::make_shared<Connection>(*this, std::move(pSocket));
      fConnections.emplace(connection.get(), connection);
    }
  }
  if (connection) {
    connection->start();
    return;
  }
  // One more than the host takes: told so at once, on a socket that has room for it.
  http::response<http::string_body> busy{http::status::service_unavailable, 11};
  busy.set(http::field::content_type, "application/json");
  busy.set(http::field::retry_after, "5");
  busy.body() = Json{
      {"error", "at most " + std::to_string(fOptions.fMaxConnections) +
                    " connections at once; try again later"},
      {"status",
       503}}.dump(2);
  busy.keep_alive(false);
  busy.prepare_payload();
  beast::error_code ignored;
  pSocket.non_blocking(true, ignored);
  http::write(pSocket, busy, ignored);
  pSocket.shutdown(tcp::socket::shutdown_both, ignored);
  pSocket.close(ignored);
}

void HttpServer::Impl::start() {
  if (!oxtools::isLoopback(fOptions.fAddress) && !fOptions.fBeyondLoopback) {
    throw std::runtime_error("the pages listen on loopback only (127.0.0.1, ::1, localhost), not " +
                             fOptions.fAddress + ", unless the host runs with keys or --insecure");
  }
  boost::system::error_code error;
  fPages = fs::canonical(fOptions.fPages, error);
  if (error || !fs::is_directory(fPages)) {
    throw std::runtime_error("no pages in " + fOptions.fPages);
  }
  const std::string wanted = fOptions.fAddress + ":" + std::to_string(fOptions.fPort);
  try {
    tcp::resolver resolver(fIo);
    const tcp::endpoint endpoint =
        *resolver.resolve(fOptions.fAddress, std::to_string(fOptions.fPort)).begin();
    fAcceptor.open(endpoint.protocol());
    fAcceptor.set_option(asio::socket_base::reuse_address(true));
    fAcceptor.bind(endpoint);
    fAcceptor.listen(kBacklog);
  } catch (const boost::system::system_error& failure) {
    fAcceptor.close(error);
    throw std::runtime_error("cannot listen on " + wanted + ": " + failure.code().message());
  }
  const tcp::endpoint bound = fAcceptor.local_endpoint();
  const std::string address = bound.address().to_string();
  fUrl = "http://" + (bound.address().is_v6() ? "[" + address + "]" : address) + ":" +
         std::to_string(bound.port()) + "/";
  fStarted = true;
  accept();
  for (int i = 0; i < std::max(1, fOptions.fThreads); ++i) {
    fThreads.emplace_back([this] {
      for (;;) {
        try {
          fIo.run();
          return;
        } catch (const std::exception& failure) {
          ki::log::LogStream(ki::log::kLogError, kCategory, "", "serve", 0)
              << "a connection failed: " << failure.what();
        }
      }
    });
  }
}

void HttpServer::Impl::stop() {
  if (!fStarted) return;
  fStarted = false;
  // On the acceptor's strand, so that no connection is admitted after the others were closed.
  asio::post(fAcceptor.get_executor(), [this] {
    beast::error_code ignored;
    fAcceptor.close(ignored);
    fAcceptPause.cancel();
    std::vector<std::shared_ptr<Connection>> open;
    {
      std::lock_guard<std::mutex> guard(fMutex);
      for (const auto& entry : fConnections) {
        if (std::shared_ptr<Connection> connection = entry.second.lock()) {
          open.push_back(connection);
        }
      }
    }
    for (const std::shared_ptr<Connection>& connection : open) connection->close();
  });
  // The threads end once every connection has ended; a live view unsubscribes as it ends.
  for (std::thread& thread : fThreads) thread.join();
  fThreads.clear();
}

HttpServer::HttpServer(boost::shared_ptr<OX::OXBroker> pBroker, const OX::OXBrokerHost& pHost,
                       const Options& pOptions)
    : fImpl(new Impl(std::move(pBroker), pHost, pOptions)) {}

HttpServer::~HttpServer() {
  stop();
}

void HttpServer::start() {
  fImpl->start();
}

void HttpServer::stop() {
  fImpl->stop();
}

std::string HttpServer::getUrl() const {
  return fImpl->fUrl;
}

}  // namespace oxhttp
