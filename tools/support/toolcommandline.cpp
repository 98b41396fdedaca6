#include "toolcommandline.h"

#include <iostream>
#include <map>
#include <memory>
#include <sstream>

#include "kilog.h"
#include "oxerror.h"

namespace oxtools {

namespace {

// The tools' help layout: "usage: " and the synopsis first (scripts and tests look for it), then
// what the tool does, the options with their value names and defaults, then the epilog.
class HelpFormatter : public CLI::Formatter {
 public:
  // pAbout, when given, stands in --help for the description (a sub-command's description is
  // the one-line summary its tool lists).
  explicit HelpFormatter(std::string pUsage, std::string pAbout = "")
      : fUsage(std::move(pUsage)), fAbout(std::move(pAbout)) {
    column_width(26);
  }

  std::string make_help(const CLI::App* pApp, std::string,
                        CLI::AppFormatMode pMode) const override {
    std::string text = "usage: " + fUsage + "\n";
    const std::string& about = fAbout.empty() ? pApp->get_description() : fAbout;
    if (!about.empty()) text += "\n" + about + "\n";
    text += make_positionals(pApp) + make_groups(pApp, pMode) + make_subcommands(pApp, pMode);
    if (!pApp->get_footer().empty()) text += "\n" + pApp->get_footer() + "\n";
    return text;
  }

  // Only the value's name: the checks' own descriptions would make the left column unreadable.
  std::string make_option_opts(const CLI::Option* pOption) const override {
    if (pOption->get_positional() || pOption->get_type_size() == 0) return "";
    const std::string type = pOption->get_type_name();
    return " " + type.substr(0, type.find(':'));
  }

  // The description and the default, wrapped to the width of a terminal.
  std::string make_option_desc(const CLI::Option* pOption) const override {
    const std::string defaults = pOption->get_default_str();
    return wrap(pOption->get_description() +
                (defaults.empty() ? "" : " (default " + defaults + ")"));
  }

 private:
  std::string wrap(const std::string& pText) const {
    const size_t width = kLineWidth - get_column_width();
    std::string text;
    size_t lineStart = 0;
    std::istringstream words(pText);
    for (std::string word; words >> word;) {
      if (text.size() > lineStart && text.size() - lineStart + 1 + word.size() > width) {
        text += '\n';
        lineStart = text.size();
      } else if (text.size() > lineStart) {
        text += ' ';
      }
      text += word;
    }
    return text;
  }

  static constexpr size_t kLineWidth = 100;
  std::string fUsage;
  std::string fAbout;
};

}  // namespace

const CLI::Validator kNonEmpty(
    [](const std::string& pText) { return pText.empty() ? std::string("empty value") : ""; }, "");

const CLI::Validator kFrameSize(
    [](const std::string& pText) -> std::string {
      const size_t x = pText.find_first_of("xX");
      int value = 0;
      auto positive = [&value](const std::string& pPart) {
        return readNumber(pPart, value) && value >= 1 && value <= 100000;
      };
      if (x == std::string::npos || !positive(pText.substr(0, x)) || !positive(pText.substr(x + 1)))
        return "expected WIDTHxHEIGHT, got '" + pText + "'";
      return "";
    },
    "");

void parseSize(const std::string& pText, int& pWidth, int& pHeight) {
  const size_t x = pText.find_first_of("xX");
  pWidth = std::stoi(pText.substr(0, x));
  pHeight = std::stoi(pText.substr(x + 1));
}

CommandLine::CommandLine(const std::string& pProgram, const std::string& pUsage,
                         const std::string& pAbout, const std::string& pEpilog)
    : CLI::App(pAbout, pProgram) {
  formatter(std::make_shared<HelpFormatter>(pUsage));
  footer(pEpilog);
  set_help_flag("-h,--help", "show this help and exit");
  // An option given twice takes its last value, so that a script may append an override.
  option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

CLI::App* CommandLine::addCommand(const std::string& pName, const std::string& pSummary,
                                  const std::string& pUsage, const std::string& pAbout,
                                  const std::string& pEpilog) {
  CLI::App* command = add_subcommand(pName, pSummary);
  command->formatter(std::make_shared<HelpFormatter>(pUsage, pAbout));
  command->footer(pEpilog);
  return command;
}

CLI::Option* CommandLine::addUrl(std::string& pUrl) {
  return add_option("--url", pUrl, "broker address")
      ->type_name("URL")
      ->capture_default_str()
      ->check(CLI::Validator(
          [](const std::string& pText) -> std::string {
            const size_t scheme = pText.find("://");
            if (scheme == std::string::npos || scheme == 0 || scheme + 3 >= pText.size()) {
              return "expected an address such as " + std::string(kDefaultUrl) + ", got '" + pText +
                     "'";
            }
            return "";
          },
          ""));
}

void CommandLine::addConnectOptions(OX::ConnectOptions& pOptions) {
  CLI::Option* server =
      add_option("--server-key", pOptions.fServerKey,
                 "the broker's public key (NAME.pub of oxkeygen): speak CURVE, encrypted")
          ->type_name("PATH")
          ->check(CLI::ExistingFile);
  CLI::Option* client =
      add_option("--client-key", pOptions.fClientKey,
                 "this client's secret key (NAME.key of oxkeygen), with --server-key")
          ->type_name("PATH")
          ->check(CLI::ExistingFile);
  server->needs(client);
  client->needs(server);
  using SharedMemory = OX::ConnectOptions::SharedMemory;
  static const std::map<std::string, SharedMemory> kModes = {{"auto", SharedMemory::kAuto},
                                                             {"never", SharedMemory::kNever},
                                                             {"require", SharedMemory::kRequire}};
  add_option_function<std::string>(
      "--shared-memory",
      [&pOptions](const std::string& pMode) { pOptions.fSharedMemory = kModes.at(pMode); },
      "images through a shared-memory area from a broker on this machine: auto (when it offers "
      "one), never, or require (default: auto)")
      ->type_name("MODE")
      ->check(CLI::Validator(
          [](const std::string& pText) -> std::string {
            return kModes.count(pText) != 0
                       ? ""
                       : "expected auto, never or require, got '" + pText + "'";
          },
          ""));
}

CLI::Option* CommandLine::addClientName(std::string& pName, const std::string& pHelp) {
  return add_option("--name", pName, pHelp)
      ->type_name("NAME")
      ->capture_default_str()
      ->check(kNonEmpty);
}

void CommandLine::addLogOptions() {
  addNumber("--log-level", fLogLevel, "N",
            "log records of level N or more important to stderr (-1 none, 2 error, 3 warning, "
            "4 information, 5 verbose, 6 debug)",
            ki::log::kLogSilent, ki::log::kLogDebug);
  add_flag("--log-json", fLogJson, "log records as JSON lines: level, category, function, message");
}

bool CommandLine::parse(int pArgc, char** pArgv) {
  try {
    CLI::App::parse(pArgc, pArgv);
  } catch (const CLI::CallForHelp&) {
    std::cout << help();
    return false;
  } catch (const CLI::ParseError& error) {
    throw UsageError(error.what());
  }
  // Without --log-level these are the framework's own defaults.
  ki::log::setStderrThreshold(fLogLevel);
  ki::log::setStderrJson(fLogJson);
  return true;
}

int CommandLine::run(int pArgc, char** pArgv, const std::function<int()>& pBody) {
  const std::string& program = get_name();
  try {
    return parse(pArgc, pArgv) ? pBody() : kExitOk;
  } catch (const UsageError& error) {
    std::cerr << program << ": " << error.what() << "\n"
              << "Try '" << program << " --help'.\n";
    return kExitUsage;
  } catch (const OX::OXError& error) {
    std::cerr << error.toString() << "\n";
    return kExitFailure;
  } catch (const std::exception& error) {
    std::cerr << program << ": " << error.what() << "\n";
    return kExitFailure;
  }
}

}  // namespace oxtools
