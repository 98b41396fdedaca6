// oxbroker: the broker host. Loads module libraries, then serves their published methods to
// other processes until SIGINT or SIGTERM.
#include <dlfcn.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "kilog.h"
#include "oxbroker.h"
#include "oxbrokerhost.h"
#include "oxfilepolicy.h"
#include "oxkeys.h"
#include "toolcommandline.h"

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
    "Once it listens, it prints one line on stdout: \"oxbroker: listening on URL\" (and a\n"
    "second one with the ipc:// address, with --ipc).\n"
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
  pLine.addClientName(pOptions.name, "the broker's name");
  pLine.addLogOptions();
}

// Whether clients can only come from this machine.
bool isLoopback(std::string pAddress) {
  if (pAddress == "localhost" || pAddress == "lo") return true;
  if (pAddress.size() > 2 && pAddress.front() == '[' && pAddress.back() == ']') {
    pAddress = pAddress.substr(1, pAddress.size() - 2);
  }
  unsigned char bytes[16];
  if (inet_pton(AF_INET, pAddress.c_str(), bytes) == 1) return bytes[0] == 127;
  in6_addr address;
  return inet_pton(AF_INET6, pAddress.c_str(), &address) == 1 && IN6_IS_ADDR_LOOPBACK(&address);
}

// Without keys a broker listens on loopback only, unless told that the risk is accepted.
void checkExposure(Options& pOptions) {
  const std::string& address = pOptions.host.fBindAddress;
  if (!pOptions.curveSecret.empty()) {
    pOptions.host.fCurveSecretKey = OX::readCurveKey(pOptions.curveSecret);
    pOptions.host.fAllowedClientKeys = OX::readAllowedKeys(pOptions.allowKeys);
    if (pOptions.host.fAllowedClientKeys.empty()) {
      throw UsageError("no client key (*.pub) in " + pOptions.allowKeys +
                       ": put there the NAME.pub of each client that oxkeygen made");
    }
  } else if (!isLoopback(address)) {
    if (!pOptions.insecure) {
      throw UsageError(
          "refusing to listen on " + address +
          " without keys: every machine that reaches the port could use the camera, push "
          "frames and write into the data directory.\n"
          "Make keys (docs/security.md): 'oxkeygen keys --name broker' here, 'oxkeygen keys "
          "--name NAME' on each client; copy each client's NAME.pub into a directory DIR and "
          "start with --curve-secret keys/broker.key --allow-keys DIR. Or accept the risk with "
          "--insecure.");
    }
    std::cerr << kProgram << ": warning: listening on " << address
              << " without encryption or authentication (--insecure): anyone who reaches the "
                 "port can use the camera and the files of the data directory\n";
  }
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
  std::cout << kProgram << ": listening on " << host.getUrl() << std::endl;
  if (!host.getIpcUrl().empty()) {
    std::cout << kProgram << ": listening on " << host.getIpcUrl() << std::endl;
  }
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
