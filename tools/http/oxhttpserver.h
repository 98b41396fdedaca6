// The broker host's HTTP server: pages that show the host, its modules, the status of its devices
// and a live view of a camera, the JSON API behind them, and Prometheus metrics (docs/http.md).
// It runs beside the host's message port in the same process, on its own threads. Every request
// is bounded: a head of at most kMaxHead bytes read within kReadTimeout, no body, at most
// fMaxConnections connections at once.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <memory>
#include <string>

namespace OX {
class OXBroker;
class OXBrokerHost;
}  // namespace OX

namespace oxhttp {

constexpr const char* kDefaultListen = "127.0.0.1:7762";

struct Options {
  std::string fAddress = "127.0.0.1";
  int fPort = 7762;  // 0 picks a free port (see getUrl)
  // Listening beyond loopback (oxtools::isLoopback, the message port's check) is refused unless
  // this is set: oxbroker sets it once it has applied the message port's rule (keys or
  // --insecure).
  bool fBeyondLoopback = false;
  std::string fPages;     // the directory of the pages (share/http)
  int fMaxLiveViews = 4;  // live views streamed at once; more are refused with 429
  int fThreads = 4;       // threads that answer requests and stream the live views
  // Connections open at once; one more is answered 503 and closed.
  int fMaxConnections = 2048;
};

// The request line and headers of one request, together.
constexpr std::size_t kMaxHead = 8 * 1024;

// Reads "ADDRESS:PORT" ("127.0.0.1:7762", "[::1]:7762", "localhost:0"); false with the reason in
// pError when it is not one.
bool parseListen(const std::string& pText, std::string& pAddress, int& pPort, std::string& pError);

class HttpServer {
 public:
  // pHost must outlive the server.
  HttpServer(boost::shared_ptr<OX::OXBroker> pBroker, const OX::OXBrokerHost& pHost,
             const Options& pOptions);
  // Stops serving if start() succeeded.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Binds and starts serving. Throws std::runtime_error with the reason when the address is not
  // allowed or cannot be bound.
  void start();
  // Ends the live views (unsubscribing them), then stops serving. Idempotent.
  void stop();
  // "http://127.0.0.1:7762/".
  std::string getUrl() const;

 private:
  class Impl;
  std::unique_ptr<Impl> fImpl;
};

}  // namespace oxhttp
