// Typed proxies on the broker's services.
#pragma once

#include <string>

#include "oxbroker.h"

namespace OX {

class OXMemoryProxy {
 public:
  // Both throw OXError when the broker has no memory service.
  explicit OXMemoryProxy(boost::shared_ptr<OXBroker> pBroker);
  explicit OXMemoryProxy(boost::shared_ptr<OXProxy> pProxy);

  void subscribeToEvent(const std::string& pEventName, const std::string& pModuleName,
                        const std::string& pCallbackName);
  void unsubscribeToEvent(const std::string& pEventName, const std::string& pModuleName);
  void raiseEvent(const std::string& pEventName, const OXValue& pValue);
  void insertData(const std::string& pKey, const OXValue& pValue);
  OXValue getData(const std::string& pKey);

 private:
  boost::shared_ptr<OXProxy> fProxy;
};

class OXPreferencesProxy {
 public:
  explicit OXPreferencesProxy(boost::shared_ptr<OXBroker> pBroker);
  explicit OXPreferencesProxy(boost::shared_ptr<OXProxy> pProxy);

  OXValue readPrefFile(const std::string& pFileName, bool pSearchAll);

 private:
  boost::shared_ptr<OXProxy> fProxy;
};

}  // namespace OX
