#include "toolsupport.h"

#include <arpa/inet.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "oxbroker.h"
#include "oxconnectoptions.h"

namespace oxtools {

boost::shared_ptr<OX::OXProxy> connectModule(const std::string& pUrl, const std::string& pModule,
                                             const std::string& pClientName,
                                             const OX::ConnectOptions& pOptions) {
  OX::OXProxy::setClientName(pClientName);
  return OX::OXProxy::connect(pUrl, pModule, pOptions);
}

namespace {

// Lock-free, hence safe to store from a signal handler.
std::atomic<bool> gStop{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void onStopSignal(int) {
  gStop.store(true);
}

}  // namespace

void installStopHandler() {
  struct sigaction action = {};
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  // Restart interrupted system calls: a call in flight completes and the loop then sees the flag.
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool stopRequested() {
  return gStop.load();
}

bool sleepUntil(std::chrono::steady_clock::time_point pDeadline) {
  // Short slices keep the reaction to Ctrl-C quick even at a low frame rate.
  constexpr auto kSlice = std::chrono::milliseconds(50);
  while (!stopRequested()) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= pDeadline) return true;
    std::this_thread::sleep_until(std::min(pDeadline, now + kSlice));
  }
  return false;
}

void repeatUntilStopped(const std::function<bool()>& pStep) {
  try {
    while (!stopRequested() && pStep()) {
    }
  } catch (const std::exception&) {
    if (!stopRequested()) throw;
  }
}

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

}  // namespace oxtools
