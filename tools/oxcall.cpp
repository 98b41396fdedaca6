// oxcall: calls one published method of a module hosted by a broker, from the command line.
// Arguments are JSON values; the result is printed as one line of JSON.
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "oxbroker.h"
#include "oxvalue.h"
#include "toolcommandline.h"
#include "toolsupport.h"

namespace {

using json = nlohmann::ordered_json;
using OX::OXValue;
using oxtools::UsageError;

constexpr const char* kProgram = "oxcall";

const char* const kAbout =
    "Calls METHOD of MODULE on the broker host at URL. Each ARG is one JSON value:\n"
    "  null -> invalid value, true/false -> bool, 12 -> int (32-bit), 1.5 -> float,\n"
    "  \"text\" -> string, [..] -> array,\n"
    "  {\"binary-hex\": \"00ff..\"} or {\"binary-file\": \"path\"} -> binary.\n"
    "The result is printed as one line of JSON; a binary shows as {\"binary\": <bytes>} and an\n"
    "invalid value as null. Options go before MODULE; everything after it is an argument.\n"
    "Exit status: 0 success, 1 bad command line, 2 error raised by the broker or the module\n"
    "(its text on stderr) or no broker answering.";

const char* const kEpilog =
    "examples:\n"
    "  oxcall OXVideoDevice getFrameRate 0\n"
    "  oxcall OXVideoDevice subscribeCamera '\"me\"' 0 1 11 15\n"
    "  oxcall OXVideoDevice putImage 0 160 120 '{\"binary-file\": \"frame.rgb\"}'\n"
    "  oxcall --list OXVideoDevice\n"
    "  oxcall --describe OXVideoDevice getImageRemote";

int hexDigit(char pChar) {
  if (pChar >= '0' && pChar <= '9') return pChar - '0';
  if (pChar >= 'a' && pChar <= 'f') return pChar - 'a' + 10;
  if (pChar >= 'A' && pChar <= 'F') return pChar - 'A' + 10;
  return -1;
}

OXValue binaryFromObject(const json& pObject, const std::string& pWhere) {
  if (pObject.size() != 1 || !pObject.begin().value().is_string()) {
    throw UsageError(pWhere + ": an object must be {\"binary-hex\": \"...\"} or " +
                     "{\"binary-file\": \"path\"}");
  }
  const std::string& key = pObject.begin().key();
  const std::string& text = pObject.begin().value().get_ref<const std::string&>();
  std::vector<unsigned char> bytes;
  if (key == "binary-hex") {
    if (text.size() % 2 != 0) throw UsageError(pWhere + ": odd number of hex digits");
    for (size_t i = 0; i < text.size(); i += 2) {
      const int high = hexDigit(text[i]);
      const int low = hexDigit(text[i + 1]);
      if (high < 0 || low < 0) throw UsageError(pWhere + ": not a hex digit in binary-hex");
      bytes.push_back(static_cast<unsigned char>(high * 16 + low));
    }
  } else if (key == "binary-file") {
    std::ifstream file(text, std::ios::binary);
    if (!file) throw UsageError(pWhere + ": cannot read binary-file " + text);
    bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  } else {
    throw UsageError(pWhere + ": unknown key \"" + key + "\" (binary-hex or binary-file)");
  }
  if (bytes.size() > static_cast<size_t>(std::numeric_limits<int>::max())) {
    throw UsageError(pWhere + ": binary too large");
  }
  return OXValue::binary(bytes.data(), static_cast<int>(bytes.size()));
}

OXValue fromJson(const json& pValue, const std::string& pWhere) {
  constexpr int64_t kMin = std::numeric_limits<int32_t>::min();
  constexpr int64_t kMax = std::numeric_limits<int32_t>::max();
  switch (pValue.type()) {
    case json::value_t::null:
      return OXValue();
    case json::value_t::boolean:
      return OXValue(pValue.get<bool>());
    case json::value_t::number_integer: {
      const int64_t number = pValue.get<int64_t>();
      if (number < kMin || number > kMax) {
        throw UsageError(pWhere + ": " + pValue.dump() + " is out of the 32-bit int range");
      }
      return OXValue(static_cast<int>(number));
    }
    case json::value_t::number_unsigned: {
      const uint64_t number = pValue.get<uint64_t>();
      if (number > static_cast<uint64_t>(kMax)) {
        throw UsageError(pWhere + ": " + pValue.dump() + " is out of the 32-bit int range");
      }
      return OXValue(static_cast<int>(number));
    }
    case json::value_t::number_float:
      return OXValue(static_cast<float>(pValue.get<double>()));
    case json::value_t::string:
      return OXValue(pValue.get<std::string>());
    case json::value_t::array: {
      OXValue::Array elements;
      for (const json& element : pValue) elements.push_back(fromJson(element, pWhere));
      return OXValue(std::move(elements));
    }
    case json::value_t::object:
      return binaryFromObject(pValue, pWhere);
    default:
      throw UsageError(pWhere + ": unsupported JSON value");
  }
}

// The shortest decimal that reads back as the same float, so 0.1f prints as 0.1.
json floatToJson(float pValue) {
  char text[64];
  const auto result = std::to_chars(text, text + sizeof text, pValue);
  return json(std::strtod(std::string(text, result.ptr).c_str(), nullptr));
}

json toJson(const OXValue& pValue) {
  switch (pValue.getType()) {
    case OXValue::TypeInvalid:
      return nullptr;
    case OXValue::TypeBool:
      return pValue.asBool();
    case OXValue::TypeInt:
      return pValue.asInt();
    case OXValue::TypeFloat:
      return floatToJson(pValue.asFloat());
    case OXValue::TypeString:
      return pValue.asString();
    case OXValue::TypeArray: {
      json array = json::array();
      for (int i = 0; i < pValue.getSize(); ++i) array.push_back(toJson(pValue[i]));
      return array;
    }
    case OXValue::TypeBinary:
      return json{{"binary", pValue.getSize()}};
  }
  return nullptr;
}

std::string dumpLine(const json& pValue) {
  // Strings from a module need not be UTF-8: invalid bytes become U+FFFD rather than an error.
  return pValue.dump(-1, ' ', false, json::error_handler_t::replace);
}

json examplesJson(const OXValue& pExamples) {
  json examples = json::array();
  for (int i = 0; i < pExamples.getSize(); ++i) {
    examples.push_back(
        {{"language", pExamples[i][0].asString()}, {"text", pExamples[i][1].asString()}});
  }
  return examples;
}

// One publication record: [name, class, description, flags, [[param, description, type], ...],
// [return name, description, type], [[language, text], ...], binding].
json methodJson(const OXValue& pRecord) {
  json parameters = json::array();
  const OXValue& params = pRecord[4];
  for (int i = 0; i < params.getSize(); ++i) {
    parameters.push_back({{"name", params[i][0].asString()},
                          {"description", params[i][1].asString()},
                          {"type", params[i][2].asString()}});
  }
  const OXValue& result = pRecord[5];
  return json{{"name", pRecord[0].asString()},
              {"class", pRecord[1].asString()},
              {"description", pRecord[2].asString()},
              {"flags", pRecord[3].asInt()},
              {"parameters", parameters},
              {"return",
               {{"name", result[0].asString()},
                {"description", result[1].asString()},
                {"type", result[2].asString()}}},
              {"examples", examplesJson(pRecord[6])},
              {"overload", pRecord[7].asString() == "bindMethodOverload"}};
}

json methodsJson(const OXValue& pRecords) {
  json methods = json::array();
  for (int i = 0; i < pRecords.getSize(); ++i) methods.push_back(methodJson(pRecords[i]));
  return methods;
}

struct Options {
  std::string url = oxtools::kDefaultUrl;
  OX::ConnectOptions keys;  // --server-key, --client-key, --shared-memory
  std::string name = kProgram;
  int timeoutMs = OX::OXProxy::getRemoteTimeout();
  bool list = false;
  bool describe = false;
  std::string module;
  std::vector<std::string> words;  // METHOD [ARG...], or METHOD of --describe
};

void declare(oxtools::CommandLine& pLine, Options& pOptions) {
  pLine.addUrl(pOptions.url);
  pLine.addConnectOptions(pOptions.keys);
  pLine.addClientName(pOptions.name, "client name given to the broker");
  pLine.addNumber("--timeout", pOptions.timeoutMs, "MS", "reply timeout in milliseconds", 1,
                  std::numeric_limits<int>::max());
  CLI::Option* list =
      pLine.add_flag("--list", pOptions.list, "print the method names of MODULE, one per line");
  pLine
      .add_flag("--describe", pOptions.describe,
                "print the method table of MODULE (or the publications of METHOD) as JSON")
      ->excludes(list);
  pLine.addLogOptions();
  pLine.add_option("MODULE", pOptions.module, "the module, e.g. OXVideoDevice");
  pLine.add_option("METHOD", pOptions.words,
                   "the method, then its arguments (ARG), one JSON value each; with --describe, "
                   "the method to describe");
  // Everything after MODULE is an argument, so that a negative number needs no escaping.
  pLine.positionals_at_end();
}

// The arguments as values, checked before connecting so that a typo costs no round trip.
OXValue callArguments(const std::vector<std::string>& pWords) {
  OXValue arguments = OXValue::array({});
  for (size_t i = 1; i < pWords.size(); ++i) {
    const std::string where = "argument " + std::to_string(i);
    json parsed = json::parse(pWords[i], nullptr, false);
    if (parsed.is_discarded()) {
      throw UsageError(where + ": not JSON: " + pWords[i] + " (a string needs quotes: '\"text\"')");
    }
    arguments.arrayPush(fromJson(parsed, where));
  }
  return arguments;
}

int describe(OX::OXProxy& pProxy, const Options& pOptions) {
  if (!pOptions.words.empty()) {
    const OXValue records = pProxy.getMethodHelp(pOptions.words[0]);
    if (records.getSize() == 0) {
      std::cerr << kProgram << ": module " << pOptions.module << " publishes no method "
                << pOptions.words[0] << "\n";
      return oxtools::kExitFailure;
    }
    std::cout << dumpLine(methodsJson(records)) << "\n";
    return oxtools::kExitOk;
  }
  // [[module name, description, [[language, text], ...]], [record, ...]]
  const OXValue table = pProxy.describe();
  const OXValue& help = table[0];
  const json whole = {{"module", help[0].asString()},
                      {"description", help[1].asString()},
                      {"examples", examplesJson(help[2])},
                      {"methods", methodsJson(table[1])}};
  std::cout << dumpLine(whole) << "\n";
  return oxtools::kExitOk;
}

int run(const Options& pOptions) {
  // Checked here rather than declared required, so that an unknown option is named as such.
  if (pOptions.module.empty()) throw UsageError("missing MODULE");
  if (pOptions.list && !pOptions.words.empty()) throw UsageError("--list takes MODULE only");
  if (pOptions.describe && pOptions.words.size() > 1) {
    throw UsageError("--describe takes MODULE [METHOD]");
  }
  const bool call = !pOptions.list && !pOptions.describe;
  if (call && pOptions.words.empty()) throw UsageError("missing METHOD");
  const OXValue arguments = call ? callArguments(pOptions.words) : OXValue();
  OX::OXProxy::setRemoteTimeout(pOptions.timeoutMs);

  const boost::shared_ptr<OX::OXProxy> proxy =
      oxtools::connectModule(pOptions.url, pOptions.module, pOptions.name, pOptions.keys);
  if (pOptions.describe) return describe(*proxy, pOptions);
  if (pOptions.list) {
    for (const std::string& method : proxy->getMethodList()) std::cout << method << "\n";
    return oxtools::kExitOk;
  }
  const OXValue result = proxy->genericCall(pOptions.words[0], arguments);
  std::cout << dumpLine(toJson(result)) << "\n";
  return oxtools::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  oxtools::CommandLine line(kProgram,
                            "oxcall [options] MODULE METHOD [ARG...]\n"
                            "       oxcall [options] --list MODULE\n"
                            "       oxcall [options] --describe MODULE [METHOD]",
                            kAbout, kEpilog);
  declare(line, options);
  return line.run(argc, argv, [&options] { return run(options); });
}
