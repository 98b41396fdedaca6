// The command line of every tool, declared once with CLI11: the declaration gives the parse, the
// usage errors and --help. Options that several tools share (broker address, client name, log
// output) are declared here, so that they read and check the same everywhere.
#pragma once

#include <CLI/CLI.hpp>
#include <charconv>
#include <functional>
#include <string>

#include "kilog.h"
#include "oxconnectoptions.h"

namespace oxtools {

constexpr const char* kDefaultUrl = "tcp://127.0.0.1:7761";

// 1 for a bad command line, 2 for a failure at run time (an OXError among others).
enum ExitCode : int { kExitOk = 0, kExitUsage = 1, kExitFailure = 2 };

// A bad command line found after parsing: the message goes to stderr with a pointer to --help,
// and the tool exits 1.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& pMessage) : std::runtime_error(pMessage) {}
};

class CommandLine : public CLI::App {
 public:
  // pUsage: the synopsis lines after "usage: "; pAbout: what the tool does, printed after them;
  // pEpilog: printed at the end of --help (examples, notes).
  CommandLine(const std::string& pProgram, const std::string& pUsage, const std::string& pAbout,
              const std::string& pEpilog = "");

  // A sub-command ("oxv export ..."), listed with pSummary in the tool's --help; its own --help
  // shows pUsage, pAbout, its options and pEpilog.
  CLI::App* addCommand(const std::string& pName, const std::string& pSummary,
                       const std::string& pUsage, const std::string& pAbout,
                       const std::string& pEpilog = "");
  // --url URL: a ZeroMQ address "transport://endpoint".
  CLI::Option* addUrl(std::string& pUrl);
  // --server-key PATH and --client-key PATH: the CURVE keys of the connection to the broker
  // (docs/security.md), both or neither; --shared-memory auto|never|require: whether images come
  // through a shared-memory area from a broker on this machine (docs/shared-memory.md).
  void addConnectOptions(OX::ConnectOptions& pOptions);
  // --name NAME: the name this process gives the broker; not empty.
  CLI::Option* addClientName(std::string& pName, const std::string& pHelp);
  // pName pMetavar: a number from pMin to pMax; its default, shown in --help, is pValue's value.
  template <class T>
  CLI::Option* addNumber(const std::string& pName, T& pValue, const std::string& pMetavar,
                         const std::string& pHelp, T pMin, T pMax) {
    return add_option(pName, pValue, pHelp)
        ->type_name(pMetavar)
        ->capture_default_str()
        ->check(CLI::Range(pMin, pMax).description(""));
  }
  // --log-level N and --log-json, applied to ki::log's stderr output once the line is parsed.
  void addLogOptions();

  // Parses the command line, then runs pBody and returns its exit code. --help prints the help
  // and gives 0; a bad command line (from CLI11 or a UsageError) prints "<program>: <message>"
  // and a hint and gives 1; an OXError prints its toString() and gives 2, as does any other
  // exception (its what()).
  int run(int pArgc, char** pArgv, const std::function<int()>& pBody);

 private:
  // False when the help was asked for and printed.
  bool parse(int pArgc, char** pArgv);

  int fLogLevel = ki::log::kLogWarning;
  bool fLogJson = false;
};

// True when the whole of pText is a number, which is then in pValue.
template <class T>
bool readNumber(const std::string& pText, T& pValue) {
  const char* end = pText.data() + pText.size();
  const std::from_chars_result result = std::from_chars(pText.data(), end, pValue);
  return result.ec == std::errc() && result.ptr == end;
}

// Checks for option values, each giving a clear message naming what was expected.
extern const CLI::Validator kNonEmpty;
// "640x480" (also with 'X'); the size itself is read with parseSize.
extern const CLI::Validator kFrameSize;

// Reads a size that kFrameSize accepted.
void parseSize(const std::string& pText, int& pWidth, int& pHeight);

}  // namespace oxtools
