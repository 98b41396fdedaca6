#include "toolsupport.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <thread>

#include "oxbroker.h"
#include "oxerror.h"

namespace oxtools {

CommandLine::CommandLine(std::string pProgram, std::string pUsage, std::string pAbout)
    : fProgram(std::move(pProgram)), fUsage(std::move(pUsage)), fAbout(std::move(pAbout)) {}

void CommandLine::addFlag(const std::string& pName, bool* pTarget, const std::string& pHelp) {
  Option option;
  option.fName = pName;
  option.fHelp = pHelp;
  option.fFlag = pTarget;
  fOptions.push_back(option);
}

void CommandLine::addValue(const std::string& pName, const std::string& pMetavar,
                           std::string* pTarget, const std::string& pHelp) {
  Option option;
  option.fName = pName;
  option.fMetavar = pMetavar;
  option.fHelp = pHelp;
  option.fValue = pTarget;
  fOptions.push_back(option);
}

CommandLine::Option* CommandLine::find(const std::string& pName) {
  for (Option& option : fOptions) {
    if (option.fName == pName) return &option;
  }
  return nullptr;
}

bool CommandLine::given(const std::string& pName) const {
  for (const Option& option : fOptions) {
    if (option.fName == pName) return option.fGiven;
  }
  return false;
}

std::string CommandLine::help() const {
  std::string text = "usage: " + fUsage + "\n";
  if (!fAbout.empty()) text += "\n" + fAbout + "\n";
  text += "\noptions:\n";
  auto line = [&text](const std::string& pLeft, const std::string& pHelp) {
    std::string left = "  " + pLeft;
    if (left.size() < 24) {
      left.resize(24, ' ');
    } else {
      left += "\n" + std::string(24, ' ');
    }
    text += left + pHelp + "\n";
  };
  line("--help", "show this help and exit");
  for (const Option& option : fOptions) {
    line(option.fName + (option.fMetavar.empty() ? "" : " " + option.fMetavar), option.fHelp);
  }
  if (!fEpilog.empty()) text += "\n" + fEpilog + "\n";
  return text;
}

std::vector<std::string> CommandLine::parse(int pArgc, char** pArgv, bool pOptionsFirst) {
  std::vector<std::string> positional;
  bool optionsEnded = false;
  for (int i = 1; i < pArgc; ++i) {
    const std::string argument = pArgv[i];
    const bool looksLikeOption = argument.size() > 1 && argument[0] == '-';
    if (optionsEnded || !looksLikeOption) {
      positional.push_back(argument);
      if (pOptionsFirst) optionsEnded = true;
      continue;
    }
    if (argument == "--") {
      optionsEnded = true;
      continue;
    }
    if (argument == "--help" || argument == "-h") {
      std::cout << help();
      std::exit(kExitOk);
    }
    const size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    Option* option = find(name);
    if (option == nullptr) throw UsageError("unknown option " + name);
    option->fGiven = true;
    if (option->fFlag != nullptr) {
      if (equals != std::string::npos) throw UsageError(name + " takes no value");
      *option->fFlag = true;
    } else if (equals != std::string::npos) {
      *option->fValue = argument.substr(equals + 1);
    } else if (i + 1 < pArgc) {
      *option->fValue = pArgv[++i];
    } else {
      throw UsageError(name + " needs a value " + option->fMetavar);
    }
  }
  return positional;
}

int parseInt(const std::string& pText, const std::string& pOption, long long pMin, long long pMax) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(pText.c_str(), &end, 10);
  if (pText.empty() || *end != '\0' || errno == ERANGE || value < pMin || value > pMax) {
    throw UsageError(pOption + ": expected an integer from " + std::to_string(pMin) + " to " +
                     std::to_string(pMax) + ", got '" + pText + "'");
  }
  return static_cast<int>(value);
}

double parsePositive(const std::string& pText, const std::string& pOption) {
  char* end = nullptr;
  const double value = std::strtod(pText.c_str(), &end);
  if (pText.empty() || *end != '\0' || !(value > 0.0) || value > 1e6) {
    throw UsageError(pOption + ": expected a positive number, got '" + pText + "'");
  }
  return value;
}

void parseSize(const std::string& pText, const std::string& pOption, int& pWidth, int& pHeight) {
  const size_t x = pText.find_first_of("xX");
  if (x == std::string::npos) {
    throw UsageError(pOption + ": expected WIDTHxHEIGHT, got '" + pText + "'");
  }
  pWidth = parseInt(pText.substr(0, x), pOption + " width", 1, 100000);
  pHeight = parseInt(pText.substr(x + 1), pOption + " height", 1, 100000);
}

std::string checkUrl(const std::string& pText) {
  const size_t scheme = pText.find("://");
  if (scheme == std::string::npos || scheme == 0 || scheme + 3 >= pText.size()) {
    throw UsageError("--url: expected an address such as " + std::string(kDefaultUrl) + ", got '" +
                     pText + "'");
  }
  return pText;
}

boost::shared_ptr<OX::OXProxy> connectModule(const std::string& pUrl, const std::string& pModule,
                                             const std::string& pClientName) {
  OX::OXProxy::setClientName(pClientName);
  return OX::OXProxy::connect(pUrl, pModule);
}

int runTool(const std::string& pProgram, const std::function<int()>& pBody) {
  try {
    return pBody();
  } catch (const UsageError& error) {
    std::cerr << pProgram << ": " << error.what() << "\n"
              << "Try '" << pProgram << " --help'.\n";
    return kExitUsage;
  } catch (const OX::OXError& error) {
    std::cerr << error.toString() << "\n";
    return kExitFailure;
  } catch (const std::exception& error) {
    std::cerr << pProgram << ": " << error.what() << "\n";
    return kExitFailure;
  }
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

}  // namespace oxtools
