// What the command-line tools share: option parsing with --help, the exit codes, the broker's
// default address, and a stop flag raised by SIGINT and SIGTERM.
#pragma once

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

namespace OX {
class OXProxy;
}

namespace oxtools {

constexpr const char* kDefaultUrl = "tcp://127.0.0.1:7761";
constexpr const char* kDeviceModule = "OXVideoDevice";

// 1 for a bad command line, 2 for a failure at run time (an OXError among others).
enum ExitCode : int { kExitOk = 0, kExitUsage = 1, kExitFailure = 2 };

// A bad command line: the message goes to stderr with a pointer to --help, and the tool exits 1.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& pMessage) : std::runtime_error(pMessage) {}
};

// A small parser of "--name", "--name VALUE" and "--name=VALUE". Unknown options and missing
// values are usage errors; --help prints the help text and exits 0.
class CommandLine {
 public:
  // pUsage: the synopsis lines after "usage: "; pAbout: text printed between synopsis and options.
  CommandLine(std::string pProgram, std::string pUsage, std::string pAbout);

  void addFlag(const std::string& pName, bool* pTarget, const std::string& pHelp);
  // The value is kept as text; the tool converts it with the parse helpers below.
  void addValue(const std::string& pName, const std::string& pMetavar, std::string* pTarget,
                const std::string& pHelp);
  // Text printed at the end of --help (examples, notes).
  void setEpilog(const std::string& pText) { fEpilog = pText; }

  // Returns the positional arguments. With pOptionsFirst, options are recognised only before the
  // first positional argument, so that later arguments may begin with '-' (a negative number);
  // "--" always ends the options.
  std::vector<std::string> parse(int pArgc, char** pArgv, bool pOptionsFirst = false);
  bool given(const std::string& pName) const;

  std::string help() const;
  const std::string& program() const { return fProgram; }

 private:
  struct Option {
    std::string fName;
    std::string fMetavar;  // empty for a flag
    std::string fHelp;
    bool* fFlag = nullptr;
    std::string* fValue = nullptr;
    bool fGiven = false;
  };
  Option* find(const std::string& pName);

  std::string fProgram;
  std::string fUsage;
  std::string fAbout;
  std::string fEpilog;
  std::vector<Option> fOptions;
};

// Conversions of option values; each throws UsageError naming the option.
int parseInt(const std::string& pText, const std::string& pOption, long long pMin, long long pMax);
double parsePositive(const std::string& pText, const std::string& pOption);
// "640x480" (also with 'X').
void parseSize(const std::string& pText, const std::string& pOption, int& pWidth, int& pHeight);

// A ZeroMQ address as given to --url: "transport://endpoint", else UsageError.
std::string checkUrl(const std::string& pText);

// Introduces this process as pClientName and connects to pModule of the broker at pUrl; throws
// OXError when the broker does not answer or hosts no such module.
boost::shared_ptr<OX::OXProxy> connectModule(const std::string& pUrl, const std::string& pModule,
                                             const std::string& pClientName);

// Runs a tool's body: UsageError prints "<program>: <message>" and a hint and gives 1; OXError
// prints its toString() and gives 2, as does any other exception (its what()).
int runTool(const std::string& pProgram, const std::function<int()>& pBody);

// SIGINT and SIGTERM raise a flag instead of ending the process, so that tools can clean up
// (unsubscribe, print their summary) and exit 0.
void installStopHandler();
bool stopRequested();
// Sleeps until pDeadline in short slices; returns false early when a stop was requested.
bool sleepUntil(std::chrono::steady_clock::time_point pDeadline);

}  // namespace oxtools
