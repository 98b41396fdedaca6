// The broker's services: OXMemory and OXPreferences.
#include "oxservices.h"

#include <tinyxml2.h>

#include <boost/filesystem.hpp>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "kilog.h"
#include "oxcaller.h"
#include "oxfilepolicy.h"
#include "oxvalue/detail/oxfunctor.h"

namespace OX {
namespace {

const char* const kServicesFile = "framework/oxservices";

// Describes and binds one method of a service in the order the method table expects.
template <class C, class M>
void publish(C* pModule, M pMethod, const std::string& pName, const std::string& pDescription,
             std::initializer_list<std::pair<const char*, const char*>> pParams) {
  pModule->functionName(pName, pModule->getName(), pDescription, 0);
  for (const auto& param : pParams) pModule->addParam(param.first, param.second);
  detail::completeAndCheck(pMethod, pModule->getCurrentMethodDescription());
  pModule->bindMethod(detail::createFunctor(pModule, pMethod));
}

// What an entry of the memory service takes, roughly: its bytes and 64 bytes an element.
std::size_t valueBytes(const OXValue& pValue) {
  constexpr std::size_t kOverhead = 64;
  switch (pValue.getType()) {
    case OXValue::TypeString:
    case OXValue::TypeBinary:
      return kOverhead + static_cast<std::size_t>(pValue.getSize());
    case OXValue::TypeArray: {
      std::size_t bytes = kOverhead;
      for (int i = 0; i < pValue.getSize(); ++i) bytes += valueBytes(pValue[i]);
      return bytes;
    }
    default:
      return kOverhead;
  }
}

std::size_t entryBytes(const std::string& pKey, const OXValue& pValue) {
  return pKey.size() + valueBytes(pValue);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// OXMemory

OXMemory::OXMemory(boost::shared_ptr<OXBroker> pBroker) : OXModule(pBroker, "OXMemory") {
  setModuleDescription("Events and named data shared between modules.");
  publish(this, &OXMemory::subscribeToEvent, "subscribeToEvent",
          "Calls a module's method each time the event is raised.",
          {{"eventName", "Name of the event."},
           {"moduleName", "Module to call."},
           {"callbackName",
            "Method of that module, called with the event's name, its value "
            "and the subscriber's id."}});
  publish(this, &OXMemory::unsubscribeToEvent, "unsubscribeToEvent",
          "Stops calling a module for an event.",
          {{"eventName", "Name of the event."}, {"moduleName", "Module that subscribed."}});
  publish(this, &OXMemory::raiseEvent, "raiseEvent", "Raises an event with a value.",
          {{"eventName", "Name of the event."}, {"value", "Value handed to the subscribers."}});
  publish(this, &OXMemory::insertData, "insertData", "Stores a value under a key.",
          {{"key", "Name of the data."}, {"value", "Value to store."}});
  publish(this, &OXMemory::getData, "getData",
          "Returns the value stored under a key, invalid when there is none.",
          {{"key", "Name of the data."}});
}

void OXMemory::subscribeToEvent(const std::string& pEventName, const std::string& pModuleName,
                                const std::string& pCallbackName) {
  std::lock_guard<std::mutex> guard(fMutex);
  std::vector<Subscription>& subscribers = fSubscriptions[pEventName];
  for (Subscription& subscription : subscribers) {
    if (subscription.fModuleName == pModuleName) {
      subscription.fCallbackName = pCallbackName;
      return;
    }
  }
  subscribers.push_back({pModuleName, pCallbackName});
}

void OXMemory::unsubscribeToEvent(const std::string& pEventName, const std::string& pModuleName) {
  std::lock_guard<std::mutex> guard(fMutex);
  auto found = fSubscriptions.find(pEventName);
  if (found == fSubscriptions.end()) return;
  std::vector<Subscription>& subscribers = found->second;
  for (auto it = subscribers.begin(); it != subscribers.end(); ++it) {
    if (it->fModuleName == pModuleName) {
      subscribers.erase(it);
      return;
    }
  }
}

void OXMemory::raiseEvent(const std::string& pEventName, const OXValue& pValue) {
  std::vector<Subscription> subscribers;
  {
    std::lock_guard<std::mutex> guard(fMutex);
    auto found = fSubscriptions.find(pEventName);
    if (found != fSubscriptions.end()) subscribers = found->second;
  }
  boost::shared_ptr<OXBroker> broker = getParentBroker();
  if (!broker) return;
  for (const Subscription& subscription : subscribers) {
    try {
      OXValue arguments;
      arguments.arrayPush(pEventName);
      arguments.arrayPush(pValue);
      arguments.arrayPush(subscription.fModuleName);
      broker->getProxy(subscription.fModuleName, 0)
          ->genericCall(subscription.fCallbackName, arguments);
    } catch (const std::exception& error) {
      ki::log::LogStream(ki::log::kLogWarning, "framework.memory", "", "raiseEvent", 0)
          << "Event " << pEventName << ": callback " << subscription.fModuleName << "."
          << subscription.fCallbackName << " failed: " << error.what();
    }
  }
}

void OXMemory::insertData(const std::string& pKey, const OXValue& pValue) {
  const std::size_t added = pValue.isValid() ? entryBytes(pKey, pValue) : 0;
  std::lock_guard<std::mutex> guard(fMutex);
  auto found = fData.find(pKey);
  const std::size_t replaced = found == fData.end() ? 0 : entryBytes(pKey, found->second);
  // Another process's client must not fill the broker's memory: it may store up to the bound.
  if (isRemoteCall() && added > replaced && fDataBytes - replaced + added > fRemoteDataLimit) {
    throw OXError(getName(), "insertData",
                  "the stored data would take more than " + std::to_string(fRemoteDataLimit) +
                      " bytes, the most that callers in other processes may fill (an invalid "
                      "value removes a key)",
                  kServicesFile, __LINE__);
  }
  fDataBytes = fDataBytes - replaced + added;
  if (!pValue.isValid()) {
    if (found != fData.end()) fData.erase(found);
  } else if (found != fData.end()) {
    found->second = pValue;
  } else {
    fData.emplace(pKey, pValue);
  }
}

OXValue OXMemory::getData(const std::string& pKey) {
  std::lock_guard<std::mutex> guard(fMutex);
  auto found = fData.find(pKey);
  return found == fData.end() ? OXValue() : found->second;
}

bool OXMemory::isEventCallback(const std::string& pModuleName, const std::string& pMethod) {
  std::lock_guard<std::mutex> guard(fMutex);
  for (const auto& event : fSubscriptions) {
    for (const Subscription& subscription : event.second) {
      if (subscription.fModuleName == pModuleName && subscription.fCallbackName == pMethod) {
        return true;
      }
    }
  }
  return false;
}

void OXMemory::setRemoteDataLimit(std::size_t pBytes) {
  std::lock_guard<std::mutex> guard(fMutex);
  fRemoteDataLimit = pBytes;
}

std::size_t OXMemory::getRemoteDataLimit() {
  std::lock_guard<std::mutex> guard(fMutex);
  return fRemoteDataLimit;
}

// ---------------------------------------------------------------------------------------------
// OXPreferences

OXPreferences::OXPreferences(boost::shared_ptr<OXBroker> pBroker)
    : OXModule(pBroker, "OXPreferences") {
  setModuleDescription("Reads preference files from the broker's preference directories.");
  publish(this, &OXPreferences::readPrefFile, "readPrefFile",
          "Reads <fileName>.xml and returns its entries as [name, description, value].",
          {{"fileName", "Name of the file, without extension."},
           {"searchAll", "Search every preference directory in order (else the first only)."}});
}

OXValue OXPreferences::readPrefFile(const std::string& pFileName, const bool& pSearchAll) {
  const std::string file = pFileName + ".xml";
  // A remote caller names a preference file, never another file that the broker can read.
  const bool remote = isRemoteCall();
  const bool plain = std::all_of(pFileName.begin(), pFileName.end(), [](char pChar) {
    return std::isalnum(static_cast<unsigned char>(pChar)) || pChar == '_' || pChar == '-' ||
           pChar == '.';
  });
  if (pFileName.empty() || pFileName.find('/') != std::string::npos ||
      (remote && (!plain || pFileName[0] == '.'))) {
    throw OXError(getName(), "readPrefFile", "Invalid preference file name \"" + pFileName + "\"",
                  kServicesFile, __LINE__);
  }
  boost::shared_ptr<OXBroker> broker = getParentBroker();
  std::vector<std::string> paths;
  if (broker) paths = broker->getPreferencePaths();
  if (!pSearchAll && paths.size() > 1) paths.resize(1);
  std::string searched;
  for (const std::string& directory : paths) {
    const boost::filesystem::path path = boost::filesystem::path(directory) / file;
    searched += (searched.empty() ? "" : ", ") + directory;
    boost::system::error_code error;
    if (!boost::filesystem::is_regular_file(path, error)) continue;
    if (remote && !liesInside(path.string(), directory)) {
      throw OXError(getName(), "readPrefFile",
                    "Preference file " + path.string() + " leads outside its directory",
                    kServicesFile, __LINE__);
    }
    std::ifstream in(path.string(), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in.good() && !in.eof()) {
      throw OXError(getName(), "readPrefFile", "Could not read " + path.string(), kServicesFile,
                    __LINE__);
    }
    return parsePreferences(text.str(), path.string());
  }
  throw OXError(getName(), "readPrefFile",
                "Preference file " + file + " not found in: " +
                    (searched.empty() ? std::string("(no preference directory)") : searched),
                kServicesFile, __LINE__);
}

OXValue parsePreferences(const std::string& pText, const std::string& pSource) {
  auto malformed = [&](int pLine, const std::string& pWhy) {
    return OXError(
        "OXPreferences", "readPrefFile",
        "Malformed preference file " + pSource + " (line " + std::to_string(pLine) + "): " + pWhy,
        kServicesFile, __LINE__);
  };
  tinyxml2::XMLDocument document;
  if (document.Parse(pText.c_str(), pText.size()) != tinyxml2::XML_SUCCESS) {
    throw malformed(document.ErrorLineNum(), document.ErrorStr());
  }
  const tinyxml2::XMLElement* root = document.RootElement();
  if (root == nullptr || std::string(root->Name()) != "ModulePreference") {
    throw malformed(root ? root->GetLineNum() : 1, "the root element must be <ModulePreference>");
  }
  OXValue entries;
  entries.arraySetSize(0);
  for (const tinyxml2::XMLElement* element = root->FirstChildElement(); element != nullptr;
       element = element->NextSiblingElement()) {
    const int line = element->GetLineNum();
    if (std::string(element->Name()) != "Preference") {
      throw malformed(line, std::string("unexpected element <") + element->Name() + ">");
    }
    const char* name = element->Attribute("name");
    const char* value = element->Attribute("value");
    if (name == nullptr || value == nullptr) {
      throw malformed(line, "a <Preference> needs a name and a value");
    }
    const char* description = element->Attribute("description");
    const char* typeText = element->Attribute("type");
    const std::string type = typeText ? typeText : "string";
    OXValue parsed;
    if (type == "string") {
      parsed = std::string(value);
    } else if (type == "int") {
      errno = 0;
      char* end = nullptr;
      const long number = std::strtol(value, &end, 10);
      if (errno != 0 || end == value || *end != '\0' || number < INT_MIN || number > INT_MAX) {
        throw malformed(line, std::string("\"") + value + "\" is no int");
      }
      parsed = static_cast<int>(number);
    } else if (type == "float") {
      char* end = nullptr;
      const float number = std::strtof(value, &end);
      if (end == value || *end != '\0') {
        throw malformed(line, std::string("\"") + value + "\" is no float");
      }
      parsed = number;
    } else if (type == "bool") {
      const std::string text = value;
      if (text != "true" && text != "false") {
        throw malformed(line, "a bool is true or false, not \"" + text + "\"");
      }
      parsed = text == "true";
    } else {
      throw malformed(line, "unknown type \"" + type + "\" (string, int, float or bool)");
    }
    OXValue entry;
    entry.arrayPush(std::string(name));
    entry.arrayPush(std::string(description ? description : ""));
    entry.arrayPush(parsed);
    entries.arrayPush(entry);
  }
  return entries;
}

}  // namespace OX
