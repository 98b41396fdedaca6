// oxbroker: the broker host. Loads module libraries, then serves their published methods to
// other processes until SIGINT or SIGTERM.
#include <dlfcn.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kilog.h"
#include "oxbroker.h"
#include "oxbrokerhost.h"
#include "oxfilepolicy.h"
#include "oxhttpserver.h"
#include "oxkeys.h"
#include "toolcommandline.h"
#include "toolsupport.h"

namespace {

namespace fs = boost::filesystem;
using oxtools::UsageError;

constexpr const char* kProgram = "oxbroker";
constexpr const char* kCategory = "framework.oxbroker";
// A broker that cannot serve (a module library that creates no module, a port taken) ends with
// status 1, as docs/deviations.md tells.
constexpr int kExitNotServing = 1;

const char* const kAbout =
    "Loads module libraries into a broker and serves their published methods to other\n"
    "processes (ZeroMQ, see docs/protocol.md) until SIGINT or SIGTERM.\n"
    "It also serves pages, a JSON API and metrics over HTTP (--http, docs/http.md).\n"
    "Once it listens, it prints \"oxbroker: listening on URL\" on stdout (and a second line\n"
    "with the ipc:// address, with --ipc), then \"oxbroker: pages on URL\" when it serves pages.\n"
    "Clients on this machine (loopback or ipc) may ask for a shared-memory area, through which\n"
    "large binaries of replies come without the socket (--shared-memory-bytes, 0: none).\n"
    "The first SIGINT or SIGTERM stops it within two seconds (queued requests are answered\n"
    "with an error, running calls finish); a second one ends it at once.\n"
    "It listens on loopback only unless given keys (--curve-secret, --allow-keys) or --insecure,\n"
    "and the files that clients name lie in the data directory (see docs/security.md).";

struct Options {
  std::string prefs;
  std::vector<std::string> modules;
  OX::OXBrokerHost::Options host;
  std::string name = kProgram;
  std::string dataDirectory = "data";
  std::string curveSecret;  // files; their keys go into host
  std::string allowKeys;
  bool insecure = false;
  std::string http = oxhttp::kDefaultListen;
  bool httpGiven = false;  // --http on the command line: a port it cannot have is an error
  oxhttp::Options pages;
};

fs::path programDirectory() {
  char path[PATH_MAX];
  const ssize_t size = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (size <= 0) return fs::current_path();
  path[size] = '\0';
  return fs::path(path).parent_path();
}

// An installed oxbroker finds the preference files installed beside it; one in a build tree
// falls back to the source tree's, wherever the build directory is.
std::string defaultPreferences(const fs::path& pHere) {
  const fs::path installed = pHere / VI_PREFERENCES_FROM_BIN;
  if (fs::is_directory(installed)) return fs::canonical(installed).string();
  return std::string(VI_SOURCE_DIR) + "/share/preferences";
}

// The pages installed beside the program, else the source tree's.
std::string defaultPages(const fs::path& pHere) {
  const fs::path installed = pHere / VI_HTTP_FROM_BIN;
  if (fs::is_directory(installed)) return fs::canonical(installed).string();
  return std::string(VI_SOURCE_DIR) + "/share/http";
}

// libvideoinput.so where it is installed, else in the build tree's lib/ beside bin/.
std::string defaultModule(const fs::path& pHere) {
  const fs::path installed = pHere / VI_MODULES_FROM_BIN / "libvideoinput.so";
  if (fs::exists(installed)) return fs::canonical(installed).string();
  return (pHere / ".." / "lib" / "libvideoinput.so").string();
}

// Who gets in, and what remote callers may touch (docs/security.md).
void declareSecurity(oxtools::CommandLine& pLine, Options& pOptions) {
  pLine
      .add_option("--data-dir", pOptions.dataDirectory,
                  "the files that clients name (recordVideo, setVideo) lie in DIR, relative to "
                  "the directory oxbroker starts in; made when first needed")
      ->type_name("DIR")
      ->capture_default_str()
      ->check(oxtools::kNonEmpty);
  CLI::Option* secret =
      pLine
          .add_option("--curve-secret", pOptions.curveSecret,
                      "the broker's secret key (NAME.key of oxkeygen): encrypt every connection "
                      "and admit only the clients of --allow-keys")
          ->type_name("FILE")
          ->check(CLI::ExistingFile);
  CLI::Option* allowed =
      pLine
          .add_option("--allow-keys", pOptions.allowKeys,
                      "directory of the public keys (*.pub) of the clients let in")
          ->type_name("DIR")
          ->check(CLI::ExistingDirectory);
  secret->needs(allowed);
  allowed->needs(secret);
  pLine.add_flag("--insecure", pOptions.insecure,
                 "listen beyond loopback without keys: anyone who reaches the port gets in");
  pLine.add_flag("--allow-remote-events", pOptions.host.fAllowRemoteEvents,
                 "let clients raise OXMemory's events and call the modules' event callbacks "
                 "(default: the broker alone raises \"ClientDisconnected\")");
}

void declare(oxtools::CommandLine& pLine, Options& pOptions, const fs::path& pHere) {
  OX::OXBrokerHost::Options& host = pOptions.host;
  pOptions.prefs = defaultPreferences(pHere);
  pLine
      .add_option("--prefs", pOptions.prefs,
                  "preference directory (VideoInput.xml names the camera)")
      ->type_name("DIR")
      ->capture_default_str();
  pLine.add_option("--module", pOptions.modules, "module library to load; repeatable")
      ->type_name("LIB")
      ->default_str(defaultModule(pHere))
      ->allow_extra_args(false);
  pLine.addNumber("--port", host.fPort, "N", "TCP port; 0 picks a free one", 0, 65535);
  pLine
      .add_option("--bind", host.fBindAddress,
                  "address to listen on: loopback only by default, 0.0.0.0 for every interface")
      ->type_name("ADDRESS")
      ->capture_default_str();
  pLine
      .add_option("--ipc", host.fIpcPath,
                  "also listen on ipc://PATH, a Unix socket file, for clients on this machine")
      ->type_name("PATH");
  pLine.addNumber("--threads", host.fThreads, "N", "worker threads serving calls", 1, 1024);
  pLine.addNumber("--heartbeat-timeout", host.fHeartbeatTimeoutMs, "MS",
                  "a client that answers no heartbeat for this long is disconnected", 50, 3600000);
  pLine.addNumber("--max-message", host.fMaxMessageBytes, "BYTES",
                  "largest request accepted, each frame counting 64 bytes more", std::size_t{1024},
                  std::size_t{1} << 30);
  pLine.addNumber("--max-frames", host.fMaxFrames, "N", "most frames in one request", 1, 1 << 20);
  pLine.addNumber("--max-in-flight", host.fMaxInFlight, "N",
                  "most requests of one client queued or running", 1, 1 << 16);
  pLine.addNumber("--max-session-bytes", host.fMaxSessionBytes, "BYTES",
                  "most bytes of requests and unread replies held for one client",
                  std::size_t{1} << 20, std::size_t{1} << 40);
  pLine.addNumber("--max-queued-bytes", host.fMaxQueuedBytes, "BYTES",
                  "the same for all clients together", std::size_t{1} << 20, std::size_t{1} << 40);
  pLine.addNumber("--shared-memory-bytes", host.fSharedAreaBytes, "BYTES",
                  "shared-memory area of each client on this machine that asks; 0 offers none",
                  std::size_t{0}, std::size_t{1} << 30);
  pLine.addNumber("--max-shared-memory-bytes", host.fMaxSharedAreaBytes, "BYTES",
                  "the same for all clients together", std::size_t{0}, std::size_t{1} << 40);
  pLine.add_flag("--keep-subscribers", host.fKeepSubscribers,
                 "leave the subscribers of a client that went away registered (default: "
                 "unsubscribe them)");
  declareSecurity(pLine, pOptions);
  pOptions.pages.fPages = defaultPages(pHere);
  pLine
      .add_option("--http", pOptions.http,
                  "ADDRESS:PORT of the pages, API and metrics (port 0 picks a free one), or off; "
                  "loopback only unless the host has keys or --insecure")
      ->type_name("ADDRESS:PORT")
      ->capture_default_str()
      ->each([&pOptions](const std::string&) { pOptions.httpGiven = true; });
  pLine.add_option("--http-pages", pOptions.pages.fPages, "directory of the pages")
      ->type_name("DIR")
      ->capture_default_str();
  pLine.addNumber("--max-live-views", pOptions.pages.fMaxLiveViews, "N",
                  "live views streamed at once; more are refused", 0, 64);
  pLine.addClientName(pOptions.name, "the broker's name");
  pLine.addLogOptions();
}

// Refuses pAddress beyond loopback without keys unless --insecure accepts the risk, and warns
// when it does. pWhat says what would be done there ("listen"), pDoing the same as it goes on
// ("listening").
void checkAddress(const Options& pOptions, const std::string& pAddress, const std::string& pWhat,
                  const std::string& pDoing) {
  if (oxtools::isLoopback(pAddress)) return;
  if (!pOptions.insecure) {
    throw UsageError(
        "refusing to " + pWhat + " on " + pAddress +
        " without keys: every machine that reaches the port could use the camera, push "
        "frames and write into the data directory.\n"
        "Make keys (docs/security.md): 'oxkeygen keys --name broker' here, 'oxkeygen keys "
        "--name NAME' on each client; copy each client's NAME.pub into a directory DIR and "
        "start with --curve-secret keys/broker.key --allow-keys DIR. Or accept the risk with "
        "--insecure.");
  }
  std::cerr << kProgram << ": warning: " << pDoing << " on " << pAddress
            << " without encryption or authentication (--insecure): anyone who reaches the "
               "port can use the camera and the files of the data directory\n";
}

// Without keys a broker listens on loopback only, unless told that the risk is accepted. Its
// pages follow the same rule with the same check.
void checkExposure(Options& pOptions) {
  const bool pages = pOptions.http != "off";
  if (pages) {
    std::string error;
    if (!oxhttp::parseListen(pOptions.http, pOptions.pages.fAddress, pOptions.pages.fPort, error)) {
      throw UsageError("--http " + error);
    }
  }
  if (!pOptions.curveSecret.empty()) {
    pOptions.host.fCurveSecretKey = OX::readCurveKey(pOptions.curveSecret);
    pOptions.host.fAllowedClientKeys = OX::readAllowedKeys(pOptions.allowKeys);
    if (pOptions.host.fAllowedClientKeys.empty()) {
      throw UsageError("no client key (*.pub) in " + pOptions.allowKeys +
                       ": put there the NAME.pub of each client that oxkeygen made");
    }
    if (pages && !oxtools::isLoopback(pOptions.pages.fAddress)) {
      std::cerr << kProgram << ": warning: the pages on " << pOptions.pages.fAddress
                << " are plain HTTP: the keys guard the message port only, and anyone who "
                   "reaches the pages sees the host and its cameras\n";
    }
  } else {
    checkAddress(pOptions, pOptions.host.fBindAddress, "listen", "listening");
    if (pages) checkAddress(pOptions, pOptions.pages.fAddress, "serve pages", "serving pages");
  }
  pOptions.pages.fBeyondLoopback = true;  // checked here
}

// Loads one module library and lets it create its modules in the broker.
bool loadModule(const std::string& pLibrary, const boost::shared_ptr<OX::OXBroker>& pBroker) {
  void* handle = dlopen(pLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::cerr << kProgram << ": cannot load " << pLibrary << ": " << dlerror() << "\n";
    return false;
  }
  using CreateModule = int (*)(boost::shared_ptr<OX::OXBroker>);
  auto create = reinterpret_cast<CreateModule>(dlsym(handle, "_createModule"));
  if (create == nullptr) {
    std::cerr << kProgram << ": " << pLibrary << " has no _createModule\n";
    return false;
  }
  // The library stays loaded for the life of the process: its modules live in the broker.
  const int result = create(pBroker);
  if (result != 0) {
    std::cerr << kProgram << ": " << pLibrary << " created no module (_createModule returned "
              << result << "; see the log above)\n";
    return false;
  }
  return true;
}

// Blocks SIGINT and SIGTERM in this thread and so in every thread started from here on, so that
// only the wait in serve receives them.
sigset_t blockStopSignals() {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  return stopSignals;
}

// Starts the pages, unless they are off. A port that was asked for and cannot be had stops the
// host; the default one, taken by another host, only costs this one its pages.
bool startPages(std::unique_ptr<oxhttp::HttpServer>& pServer,
                const boost::shared_ptr<OX::OXBroker>& pBroker, const OX::OXBrokerHost& pHost,
                const Options& pOptions) {
  if (pOptions.http == "off") return true;
  pServer.reset(new oxhttp::HttpServer(pBroker, pHost, pOptions.pages));
  try {
    pServer->start();
  } catch (const std::exception& failure) {
    pServer.reset();
    std::cerr << kProgram << ": pages: " << failure.what() << "\n";
    if (pOptions.httpGiven) return false;
    std::cerr << kProgram << ": serving without pages (choose a port with --http ADDRESS:PORT)\n";
    return true;
  }
  return true;
}

// Serves the broker's modules until the first stop signal.
int serve(const boost::shared_ptr<OX::OXBroker>& pBroker, const Options& pOptions,
          const sigset_t& pStopSignals) {
  OX::OXBrokerHost host(pBroker, pOptions.host);
  try {
    host.start();
  } catch (const OX::OXError& error) {
    std::cerr << kProgram << ": " << error.getDescription() << "\n";
    return kExitNotServing;
  }
  std::unique_ptr<oxhttp::HttpServer> pages;
  if (!startPages(pages, pBroker, host, pOptions)) return kExitNotServing;
  // The first line is the message port, as readers of the first line expect.
  std::cout << kProgram << ": listening on " << host.getUrl() << std::endl;
  if (!host.getIpcUrl().empty()) {
    std::cout << kProgram << ": listening on " << host.getIpcUrl() << std::endl;
  }
  if (pages) std::cout << kProgram << ": pages on " << pages->getUrl() << std::endl;
  ki::log::LogStream(ki::log::kLogInfo, kCategory, "", "serve", 0)
      << "serving " << pBroker->getModuleNames().size() << " modules on " << host.getUrl()
      << (pOptions.host.fCurveSecretKey.empty()
              ? std::string(" without encryption")
              : " with CURVE, " + std::to_string(pOptions.host.fAllowedClientKeys.size()) +
                    " client keys allowed")
      << "; files of clients in " << pBroker->getFilePolicy()->getDirectory();
  int received = 0;
  sigwait(&pStopSignals, &received);
  // A second signal ends the process at once, should stopping take longer than its user wants to
  // wait.
  std::thread([pStopSignals] {
    int again = 0;
    sigwait(&pStopSignals, &again);
    std::cerr << kProgram << ": signal " << again << " while stopping: exiting now\n";
    std::_Exit(128 + again);
  }).detach();
  ki::log::LogStream(ki::log::kLogInfo, kCategory, "", "serve", 0)
      << "stopping on signal " << received;
  // The live views unsubscribe while the host still runs.
  if (pages) pages->stop();
  host.stop();
  return oxtools::kExitOk;
}

int run(Options& pOptions, const fs::path& pHere) {
  if (pOptions.modules.empty()) pOptions.modules.push_back(defaultModule(pHere));
  if (!fs::is_directory(pOptions.prefs)) {
    throw UsageError("no preference directory " + pOptions.prefs + " (use --prefs DIR)");
  }
  checkExposure(pOptions);
  const sigset_t stopSignals = blockStopSignals();
  boost::shared_ptr<OX::OXBroker> broker =
      OX::OXBroker::createBroker(pOptions.name, {pOptions.prefs});
  broker->setFilePolicy(boost::make_shared<OX::OXFilePolicy>(pOptions.dataDirectory));
  for (const std::string& library : pOptions.modules) {
    if (!loadModule(library, broker)) return kExitNotServing;
  }
  const int status = serve(broker, pOptions, stopSignals);
  broker->removeAllModules();
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  const fs::path here = programDirectory();
  Options options;
  oxtools::CommandLine line(kProgram, "oxbroker [options]", kAbout);
  declare(line, options, here);
  return line.run(argc, argv, [&] { return run(options, here); });
}
