// Typed proxies on the broker's services: each call goes through the method table.
#include "oxproxies.h"

namespace OX {
namespace {

boost::shared_ptr<OXProxy> checked(boost::shared_ptr<OXProxy> pProxy, const char* pService) {
  if (!pProxy) {
    throw OXError(pService, "proxy", std::string("no proxy on ") + pService, "framework/oxproxies",
                  __LINE__);
  }
  return pProxy;
}

boost::shared_ptr<OXProxy> proxyOf(const boost::shared_ptr<OXBroker>& pBroker,
                                   const char* pService) {
  if (!pBroker) {
    throw OXError(pService, "proxy", "no broker", "framework/oxproxies", __LINE__);
  }
  return pBroker->getProxy(pService, 0);
}

}  // namespace

OXMemoryProxy::OXMemoryProxy(boost::shared_ptr<OXBroker> pBroker)
    : fProxy(proxyOf(pBroker, "OXMemory")) {}
OXMemoryProxy::OXMemoryProxy(boost::shared_ptr<OXProxy> pProxy)
    : fProxy(checked(std::move(pProxy), "OXMemory")) {}

void OXMemoryProxy::subscribeToEvent(const std::string& pEventName, const std::string& pModuleName,
                                     const std::string& pCallbackName) {
  fProxy->genericCall("subscribeToEvent", OXValue::array({pEventName, pModuleName, pCallbackName}));
}

void OXMemoryProxy::unsubscribeToEvent(const std::string& pEventName,
                                       const std::string& pModuleName) {
  fProxy->genericCall("unsubscribeToEvent", OXValue::array({pEventName, pModuleName}));
}

void OXMemoryProxy::raiseEvent(const std::string& pEventName, const OXValue& pValue) {
  fProxy->genericCall("raiseEvent", OXValue::array({pEventName, pValue}));
}

void OXMemoryProxy::insertData(const std::string& pKey, const OXValue& pValue) {
  fProxy->genericCall("insertData", OXValue::array({pKey, pValue}));
}

OXValue OXMemoryProxy::getData(const std::string& pKey) {
  return fProxy->genericCall("getData", OXValue::array({pKey}));
}

OXPreferencesProxy::OXPreferencesProxy(boost::shared_ptr<OXBroker> pBroker)
    : fProxy(proxyOf(pBroker, "OXPreferences")) {}
OXPreferencesProxy::OXPreferencesProxy(boost::shared_ptr<OXProxy> pProxy)
    : fProxy(checked(std::move(pProxy), "OXPreferences")) {}

OXValue OXPreferencesProxy::readPrefFile(const std::string& pFileName, bool pSearchAll) {
  return fProxy->genericCall("readPrefFile", OXValue::array({pFileName, pSearchAll}));
}

}  // namespace OX
