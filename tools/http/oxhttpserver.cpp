// The broker host's HTTP server; see oxhttpserver.h. cpp-httplib parses the requests and runs the
// handlers on a bounded pool of threads.
#include "oxhttpserver.h"

#include <httplib.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "kilog.h"
#include "oxbroker.h"
#include "oxbrokerhost.h"
#include "oxerror.h"
#include "oxhttpdocuments.h"
#include "oxlive.h"
#include "toolsupport.h"

namespace oxhttp {

namespace {

constexpr const char* kCategory = "net.http";
constexpr const char* kDeviceModule = "OXVideoDevice";
// The library listens with a short backlog; a burst of connections would wait for the client's
// SYN to be sent again, a second or more later.
constexpr int kBacklog = 1024;
// A viewer that does not read for this long is dropped; the host's stop waits no longer either.
constexpr int kWriteTimeoutSeconds = 1;
constexpr int kReadTimeoutSeconds = 5;
constexpr int kKeepAliveSeconds = 2;
constexpr std::size_t kMaxBody = 64 * 1024;

void sendJson(httplib::Response& pResponse, const Json& pDocument, int pStatus = 200) {
  pResponse.status = pStatus;
  pResponse.set_header("Cache-Control", "no-store");
  pResponse.set_content(pDocument.dump(2), "application/json");
}

void sendError(httplib::Response& pResponse, int pStatus, const std::string& pText) {
  sendJson(pResponse, Json{{"error", pText}, {"status", pStatus}}, pStatus);
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
  Impl(boost::shared_ptr<OX::OXBroker> pBroker, const OX::OXBrokerHost& pHost,
       const Options& pOptions)
      : fBroker(std::move(pBroker)),
        fHost(pHost),
        fOptions(pOptions),
        fLive(std::max(0, pOptions.fMaxLiveViews)) {}
  ~Impl() { stop(); }
  void start();
  void stop();
  std::string fUrl;

 private:
  void route();
  void page(const std::string& pFile, httplib::Response& pResponse);
  bool hasModule(const std::string& pName) const;
  void liveStream(const httplib::Request& pRequest, httplib::Response& pResponse);

  boost::shared_ptr<OX::OXBroker> fBroker;
  const OX::OXBrokerHost& fHost;
  const Options fOptions;
  LiveViews fLive;
  httplib::Server fServer;
  std::atomic<bool> fStopping{false};
  bool fStarted = false;
  int fSocket = -1;  // the listening socket, set while binding
  std::thread fThread;
};

void HttpServer::Impl::page(const std::string& pFile, httplib::Response& pResponse) {
  std::ifstream file(fOptions.fPages + "/" + pFile, std::ios::binary);
  if (!file) {
    pResponse.status = 500;
    pResponse.set_content("the page " + pFile + " is missing from " + fOptions.fPages + "\n",
                          "text/plain");
    return;
  }
  std::ostringstream text;
  text << file.rdbuf();
  pResponse.set_header("Cache-Control", "no-store");
  pResponse.set_content(text.str(), "text/html; charset=utf-8");
}

bool HttpServer::Impl::hasModule(const std::string& pName) const {
  return static_cast<bool>(fBroker->getModuleCoreByName(pName));
}

void HttpServer::Impl::route() {
  using httplib::Request;
  using httplib::Response;
  fServer.Get("/", [this](const Request&, Response& pResponse) { page("index.html", pResponse); });
  fServer.Get("/live",
              [this](const Request&, Response& pResponse) { page("live.html", pResponse); });
  fServer.Get(R"(/modules/([^/]+))", [this](const Request& pRequest, Response& pResponse) {
    if (!hasModule(pRequest.matches[1])) {
      sendError(pResponse, 404, "no module " + std::string(pRequest.matches[1]) + " on this host");
      return;
    }
    page("module.html", pResponse);
  });
  fServer.Get(R"(/devices/([^/]+))", [this](const Request& pRequest, Response& pResponse) {
    ModuleStatus status;
    if (!moduleStatus(fBroker, pRequest.matches[1], status)) {
      sendError(pResponse, 404,
                "no module " + std::string(pRequest.matches[1]) + " with a status on this host");
      return;
    }
    page("device.html", pResponse);
  });
  fServer.Get("/api/host", [this](const Request&, Response& pResponse) {
    sendJson(pResponse, hostDocument(fBroker, fHost.getStatus(), fLive));
  });
  fServer.Get(R"(/api/modules/([^/]+))", [this](const Request& pRequest, Response& pResponse) {
    const std::string name = pRequest.matches[1];
    if (!hasModule(name)) {
      sendError(pResponse, 404, "no module " + name + " on this host");
      return;
    }
    sendJson(pResponse, moduleDocument(name, fBroker->getProxy(name, 0)->describe()));
  });
  fServer.Get(R"(/api/devices/([^/]+))", [this](const Request& pRequest, Response& pResponse) {
    ModuleStatus status;
    if (!moduleStatus(fBroker, pRequest.matches[1], status)) {
      sendError(pResponse, 404,
                "no module " + std::string(pRequest.matches[1]) + " with a status on this host");
      return;
    }
    sendJson(pResponse, statusDocument(status, fLive));
  });
  fServer.Get("/api/live", [this](const Request&, Response& pResponse) {
    sendJson(pResponse, liveDocument(fLive));
  });
  fServer.Get("/api/formats",
              [](const Request&, Response& pResponse) { sendJson(pResponse, formatsDocument()); });
  fServer.Get("/live/stream", [this](const Request& pRequest, Response& pResponse) {
    liveStream(pRequest, pResponse);
  });
  fServer.Get("/metrics", [this](const Request&, Response& pResponse) {
    pResponse.set_content(metricsText(fHost.getStatus(), moduleStatuses(fBroker), fLive),
                          "text/plain; version=0.0.4; charset=utf-8");
  });
  if (!fServer.set_mount_point("/static", fOptions.fPages)) {
    throw std::runtime_error("no pages in " + fOptions.fPages);
  }
  // Whatever was refused without a text of its own (an unknown path, a method other than GET)
  // gets one.
  fServer.set_error_handler([](const Request& pRequest, Response& pResponse) {
    if (!pResponse.body.empty()) return;
    const std::string text =
        pResponse.status == 404
            ? "nothing at " + pRequest.path
            : "request refused (HTTP " + std::to_string(pResponse.status) + "): only GET is served";
    sendError(pResponse, pResponse.status, text);
  });
  fServer.set_exception_handler(
      [](const Request& pRequest, Response& pResponse, std::exception_ptr pError) {
        std::string text = "unknown error";
        try {
          std::rethrow_exception(pError);
        } catch (const OX::OXError& error) {
          text = error.getDescription();
        } catch (const std::exception& error) {
          text = error.what();
        } catch (...) {
        }
        ki::log::LogStream(ki::log::kLogWarning, kCategory, "", "exception", 0)
            << pRequest.path << ": " << text;
        sendError(pResponse, 500, text);
      });
}

void HttpServer::Impl::liveStream(const httplib::Request& pRequest, httplib::Response& pResponse) {
  LiveRequest request;
  try {
    request = parseLiveRequest(pRequest.params);
  } catch (const std::invalid_argument& error) {
    sendError(pResponse, 400, error.what());
    return;
  }
  const std::string client = pRequest.remote_addr + ":" + std::to_string(pRequest.remote_port);
  std::shared_ptr<LiveView> view = fLive.open(request, client);
  if (!view) {
    pResponse.set_header("Connection", "close");
    pResponse.set_header("Retry-After", "5");
    sendError(pResponse, 429,
              "at most " + std::to_string(fLive.limit()) +
                  " live views at once; close one (GET /api/live lists them)");
    return;
  }
  std::shared_ptr<LiveStream> stream;
  try {
    stream = std::make_shared<LiveStream>(fBroker->getProxy(kDeviceModule, 0), fLive, view);
  } catch (const OX::OXError& error) {
    fLive.close(view);
    sendError(pResponse, 400, error.getDescription());
    return;
  }
  pResponse.set_header("Cache-Control", "no-store");
  pResponse.set_content_provider(
      std::string("multipart/x-mixed-replace; boundary=") + kBoundary,
      [this, stream](std::size_t, httplib::DataSink& pSink) {
        return stream->next(
            [&pSink](const char* pData, std::size_t pSize) { return pSink.write(pData, pSize); },
            fStopping);
      });
}

void HttpServer::Impl::start() {
  if (!oxtools::isLoopback(fOptions.fAddress) && !fOptions.fBeyondLoopback) {
    throw std::runtime_error("the pages listen on loopback only (127.0.0.1, ::1, localhost), not " +
                             fOptions.fAddress + ", unless the host runs with keys or --insecure");
  }
  // A viewer that closed its page must not end the process: its write fails instead.
  signal(SIGPIPE, SIG_IGN);
  route();
  const int threads = std::max(1, fOptions.fThreads) + fLive.limit();
  fServer.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  fServer.set_read_timeout(kReadTimeoutSeconds, 0);
  fServer.set_write_timeout(kWriteTimeoutSeconds, 0);
  fServer.set_keep_alive_timeout(kKeepAliveSeconds);
  fServer.set_payload_max_length(kMaxBody);
  fServer.set_socket_options([this](int pSocket) {
    int on = 1;
    setsockopt(pSocket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    fSocket = pSocket;
  });
  int port = fOptions.fPort;
  if (port == 0) {
    port = fServer.bind_to_any_port(fOptions.fAddress);
  } else if (!fServer.bind_to_port(fOptions.fAddress, port)) {
    port = -1;
  }
  if (port < 0) {
    throw std::runtime_error("cannot listen on " + fOptions.fAddress + ":" +
                             std::to_string(fOptions.fPort) + " (in use, or no such address)");
  }
  if (fSocket >= 0) ::listen(fSocket, kBacklog);
  const bool v6 = fOptions.fAddress.find(':') != std::string::npos;
  fUrl = std::string("http://") + (v6 ? "[" + fOptions.fAddress + "]" : fOptions.fAddress) + ":" +
         std::to_string(port) + "/";
  fStarted = true;
  fThread = std::thread([this] { fServer.listen_after_bind(); });
  // The server can only be stopped once it runs.
  while (!fServer.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void HttpServer::Impl::stop() {
  if (!fStarted) return;
  fStarted = false;
  // The live views end first (their threads see the flag), then the server stops accepting and
  // waits for its threads.
  fStopping = true;
  fServer.stop();
  fThread.join();
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
