// oxbroker: the broker host. Loads module libraries, then serves their published methods to
// other processes until SIGINT or SIGTERM.
#include <dlfcn.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "kilog.h"
#include "oxbroker.h"
#include "oxbrokerhost.h"

namespace {

const char* const kUsage =
    "Usage: oxbroker [OPTION...]\n"
    "Loads module libraries into a broker and serves their published methods to other\n"
    "processes (ZeroMQ, see docs/protocol.md) until SIGINT or SIGTERM.\n"
    "\n"
    "  --prefs DIR              preference directory (default: the repository's\n"
    "                           share/preferences, whose VideoInput.xml says SimulatorCam)\n"
    "  --module LIB             module library to load; repeatable (default: libvideoinput.so\n"
    "                           next to this program, in ../lib)\n"
    "  --port N                 TCP port (default 7761; 0 picks a free one)\n"
    "  --bind ADDRESS           address to listen on (default 127.0.0.1, loopback only;\n"
    "                           0.0.0.0 listens on every interface)\n"
    "  --threads N              worker threads serving calls (default 8)\n"
    "  --heartbeat-timeout MS   a client that answers no heartbeat for this long is\n"
    "                           disconnected (default 5000)\n"
    "  --max-message BYTES      largest request accepted, each frame counting 64 bytes\n"
    "                           more (default 67108864)\n"
    "  --max-frames N           most frames in one request (default 256)\n"
    "  --max-in-flight N        most requests of one client queued or running (default 64)\n"
    "  --max-session-bytes B    most bytes of requests and unread replies held for one\n"
    "                           client (default 268435456)\n"
    "  --max-queued-bytes B     the same for all clients together (default 1073741824)\n"
    "  --keep-subscribers       leave the subscribers of a client that went away\n"
    "                           registered (default: unsubscribe them)\n"
    "  --name NAME              the broker's name (default oxbroker)\n"
    "  --log-level N            log records of level N or more important to stderr\n"
    "                           (2 error, 3 warning, 4 information, 5 verbose; default 3)\n"
    "  --log-json               log records as JSON lines: level, category, function, message\n"
    "  --help                   this text\n"
    "\n"
    "Once it listens, it prints one line on stdout: \"oxbroker: listening on URL\".\n"
    "The first SIGINT or SIGTERM stops it within two seconds (queued requests are\n"
    "answered with an error, running calls finish); a second one ends it at once.\n";

[[noreturn]] void usageError(const std::string& pText) {
  std::cerr << "oxbroker: " << pText << "\nTry 'oxbroker --help'.\n";
  std::exit(1);
}

int parseInt(const std::string& pOption, const std::string& pText, long pMin, long pMax) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(pText.c_str(), &end, 10);
  if (pText.empty() || *end != '\0' || errno != 0 || value < pMin || value > pMax) {
    usageError(pOption + " needs a number from " + std::to_string(pMin) + " to " +
               std::to_string(pMax) + ", not '" + pText + "'");
  }
  return static_cast<int>(value);
}

boost::filesystem::path programDirectory() {
  char path[PATH_MAX];
  const ssize_t size = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (size <= 0) return boost::filesystem::current_path();
  path[size] = '\0';
  return boost::filesystem::path(path).parent_path();
}

// Loads one module library and lets it create its modules in the broker.
bool loadModule(const std::string& pLibrary, const boost::shared_ptr<OX::OXBroker>& pBroker) {
  void* handle = dlopen(pLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::cerr << "oxbroker: cannot load " << pLibrary << ": " << dlerror() << "\n";
    return false;
  }
  using CreateModule = int (*)(boost::shared_ptr<OX::OXBroker>);
  auto create = reinterpret_cast<CreateModule>(dlsym(handle, "_createModule"));
  if (create == nullptr) {
    std::cerr << "oxbroker: " << pLibrary << " has no _createModule\n";
    return false;
  }
  // The library stays loaded for the life of the process: its modules live in the broker.
  const int result = create(pBroker);
  if (result != 0) {
    std::cerr << "oxbroker: " << pLibrary << " created no module (_createModule returned " << result
              << "; see the log above)\n";
    return false;
  }
  return true;
}

// Serves until the first stop signal. A second one ends the process at once, should stopping
// take longer than its user wants to wait.
int serve(const boost::shared_ptr<OX::OXBroker>& pBroker, const OX::OXBrokerHost::Options& pOptions,
          const sigset_t& pStopSignals) {
  OX::OXBrokerHost host(pBroker, pOptions);
  try {
    host.start();
  } catch (const OX::OXError& error) {
    std::cerr << "oxbroker: " << error.getDescription() << "\n";
    return 1;
  }
  std::cout << "oxbroker: listening on " << host.getUrl() << std::endl;
  ki::log::LogStream(4, "framework.oxbroker", "", "main", 0)
      << "serving " << pBroker->getModuleNames().size() << " modules on " << host.getUrl();
  int received = 0;
  sigwait(&pStopSignals, &received);
  std::thread([pStopSignals] {
    int again = 0;
    sigwait(&pStopSignals, &again);
    std::cerr << "oxbroker: signal " << again << " while stopping: exiting now\n";
    std::_Exit(128 + again);
  }).detach();
  ki::log::LogStream(4, "framework.oxbroker", "", "main", 0) << "stopping on signal " << received;
  host.stop();
  return 0;
}

}  // namespace

int main(int pArgc, char** pArgv) {
  const boost::filesystem::path here = programDirectory();
  std::string prefs = std::string(VI_SOURCE_DIR) + "/share/preferences";
  std::vector<std::string> modules;
  OX::OXBrokerHost::Options options;
  std::string name = "oxbroker";
  int logLevel = 3;
  bool logJson = false;

  std::vector<std::string> args(pArgv + 1, pArgv + pArgc);
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    auto value = [&]() -> const std::string& {
      if (i + 1 >= args.size()) usageError(arg + " needs a value");
      return args[++i];
    };
    if (arg == "--help" || arg == "-h") {
      std::cout << kUsage;
      return 0;
    } else if (arg == "--prefs") {
      prefs = value();
    } else if (arg == "--module") {
      modules.push_back(value());
    } else if (arg == "--port") {
      options.fPort = parseInt(arg, value(), 0, 65535);
    } else if (arg == "--bind") {
      options.fBindAddress = value();
    } else if (arg == "--threads") {
      options.fThreads = parseInt(arg, value(), 1, 1024);
    } else if (arg == "--heartbeat-timeout") {
      options.fHeartbeatTimeoutMs = parseInt(arg, value(), 50, 3600000);
    } else if (arg == "--max-message") {
      options.fMaxMessageBytes = static_cast<std::size_t>(parseInt(arg, value(), 1024, 1 << 30));
    } else if (arg == "--max-frames") {
      options.fMaxFrames = parseInt(arg, value(), 1, 1 << 20);
    } else if (arg == "--max-in-flight") {
      options.fMaxInFlight = parseInt(arg, value(), 1, 1 << 16);
    } else if (arg == "--max-session-bytes") {
      options.fMaxSessionBytes = static_cast<std::size_t>(parseInt(arg, value(), 1 << 20, INT_MAX));
    } else if (arg == "--max-queued-bytes") {
      options.fMaxQueuedBytes = static_cast<std::size_t>(parseInt(arg, value(), 1 << 20, INT_MAX));
    } else if (arg == "--keep-subscribers") {
      options.fKeepSubscribers = true;
    } else if (arg == "--name") {
      name = value();
    } else if (arg == "--log-level") {
      logLevel = parseInt(arg, value(), -1, 6);
    } else if (arg == "--log-json") {
      logJson = true;
    } else {
      usageError("unknown option '" + arg + "'");
    }
  }
  if (modules.empty()) modules.push_back((here / ".." / "lib" / "libvideoinput.so").string());
  if (!boost::filesystem::is_directory(prefs)) {
    usageError("no preference directory " + prefs + " (use --prefs DIR)");
  }
  ki::log::setStderrThreshold(logLevel);
  ki::log::setStderrJson(logJson);

  // Every thread started from here on inherits the blocked signals, so that only the wait below
  // receives them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  boost::shared_ptr<OX::OXBroker> broker = OX::OXBroker::createBroker(name, {prefs});
  for (const std::string& library : modules) {
    if (!loadModule(library, broker)) return 1;
  }
  const int status = serve(broker, options, stopSignals);
  broker->removeAllModules();
  return status;
}
