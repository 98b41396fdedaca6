// The two services that every broker provides: OXMemory (events and named data) and
// OXPreferences (preference files).
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "oxbroker.h"

namespace OX {

// Events and named data shared between modules.
//
// Published: subscribeToEvent(event, module, callback), unsubscribeToEvent(event, module),
// raiseEvent(event, value), insertData(key, value), getData(key).
// Raising an event calls each subscriber's callback method through the broker with the event's
// name, its value and the subscriber's id (the subscribing module's name), on the raising thread,
// outside the service's lock. A callback that fails is logged and the others still run.
// Storing an invalid value removes the key. Callers in other processes (oxcaller.h) may fill the
// store up to a bound (getRemoteDataLimit); their insertData beyond it is refused.
class OXMemory : public OXModule {
 public:
  // The default bound of the data stored, for callers in other processes: 16 MiB.
  static constexpr std::size_t kDefaultRemoteDataLimit = std::size_t(16) << 20;

  explicit OXMemory(boost::shared_ptr<OXBroker> pBroker);

  void subscribeToEvent(const std::string& pEventName, const std::string& pModuleName,
                        const std::string& pCallbackName);
  void unsubscribeToEvent(const std::string& pEventName, const std::string& pModuleName);
  void raiseEvent(const std::string& pEventName, const OXValue& pValue);
  void insertData(const std::string& pKey, const OXValue& pValue);
  // The stored value, or an invalid value when the key is unknown.
  OXValue getData(const std::string& pKey);

  // Whether pMethod of pModuleName is called back for some event.
  bool isEventCallback(const std::string& pModuleName, const std::string& pMethod);
  // The bytes that the stored data may take (estimated: keys, values and 64 bytes of overhead
  // an element) before an insertData of a remote caller is refused.
  void setRemoteDataLimit(std::size_t pBytes);
  std::size_t getRemoteDataLimit();

 private:
  struct Subscription {
    std::string fModuleName;
    std::string fCallbackName;
  };
  std::mutex fMutex;
  std::map<std::string, std::vector<Subscription>> fSubscriptions;
  std::map<std::string, OXValue> fData;
  std::size_t fDataBytes = 0;  // estimated, of fData
  std::size_t fRemoteDataLimit = kDefaultRemoteDataLimit;
};

// Preference files: readPrefFile(name, searchAll) reads <name>.xml from the broker's preference
// directories (all of them in order when searchAll, else the first only; the first file found
// wins) and returns its entries as an array of [name, description, value]. A missing or malformed
// file raises OXError with a text that says which file and what is wrong.
class OXPreferences : public OXModule {
 public:
  explicit OXPreferences(boost::shared_ptr<OXBroker> pBroker);
  OXValue readPrefFile(const std::string& pFileName, const bool& pSearchAll);
};

// Parses preference XML text; pSource names the file in error texts. Throws OXError.
OXValue parsePreferences(const std::string& pText, const std::string& pSource);

}  // namespace OX
