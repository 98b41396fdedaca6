// oxkeygen: makes a CURVE key pair for the broker host or one of its clients.
#include <unistd.h>

#include <climits>
#include <iostream>
#include <string>

#include "oxkeys.h"
#include "toolcommandline.h"

namespace {

constexpr const char* kProgram = "oxkeygen";

const char* const kAbout =
    "Writes a new CURVE key pair into DIR (made if missing): NAME.key, the secret key, readable\n"
    "by its owner only, and NAME.pub, the public key. The broker host runs with its own secret\n"
    "key (oxbroker --curve-secret DIR/NAME.key) and admits the clients whose public keys lie in\n"
    "the directory of --allow-keys; a client needs the broker's NAME.pub and its own NAME.key\n"
    "(--server-key, --client-key). An existing key is never replaced. See docs/security.md.";

const char* const kEpilog =
    "examples:\n"
    "  oxkeygen keys --name broker      # on the broker's machine\n"
    "  oxkeygen keys --name laptop      # on a client's machine; copy keys/laptop.pub over";

std::string hostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof(name) - 1) != 0 || name[0] == '\0') return "client";
  return name;
}

struct Options {
  std::string directory;
  std::string name = hostName();
};

int run(const Options& pOptions) {
  OX::writeCurveKeyPair(pOptions.directory, pOptions.name, OX::makeCurveKeyPair());
  const std::string base = pOptions.directory + "/" + pOptions.name;
  std::cout << kProgram << ": wrote " << base << ".key (secret: keep it private) and " << base
            << ".pub (public: give it to the other side)\n";
  return oxtools::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  oxtools::CommandLine line(kProgram, "oxkeygen [options] DIR", kAbout, kEpilog);
  line.add_option("DIR", options.directory, "where the two files go")->required();
  line.add_option("--name", options.name, "the key's name: NAME.key and NAME.pub")
      ->type_name("NAME")
      ->default_str("this machine's name")
      ->check(CLI::Validator(
          [](const std::string& pText) -> std::string {
            if (pText.empty() || pText[0] == '.' || pText.find('/') != std::string::npos) {
              return "a key name is not empty, has no '/' and does not start with '.'";
            }
            return "";
          },
          ""));
  return line.run(argc, argv, [&options] { return run(options); });
}
