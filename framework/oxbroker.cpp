// Brokers, modules, the method table and proxies.
#include "oxbroker.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <unistd.h>

#include "kilog.h"
#include "oxcaller.h"
#include "oxservices.h"

namespace OX {
namespace {

const char* const kBrokerFile = "framework/oxbroker";

boost::shared_ptr<OXBrokerManager>& managerSlot() {
  static boost::shared_ptr<OXBrokerManager> sManager;
  return sManager;
}

std::mutex& managerMutex() {
  static std::mutex sMutex;
  return sMutex;
}

// How well an argument of this kind fits a parameter of this type code: 2 exact, 1 convertible
// (an int where a bool or float is wanted; anything where an OXValue is wanted), 0 not at all.
int fitness(int pTypeCode, OXValue::Type pKind) {
  switch (pTypeCode) {
    case 2:
      return pKind == OXValue::TypeBool ? 2 : pKind == OXValue::TypeInt ? 1 : 0;
    case 3:
      return pKind == OXValue::TypeInt ? 2 : 0;
    case 4:
      return pKind == OXValue::TypeFloat ? 2 : pKind == OXValue::TypeInt ? 1 : 0;
    case 5:
      return pKind == OXValue::TypeString ? 2 : 0;
    case 6:
      return 1;
    case 24:
      return pKind == OXValue::TypeArray ? 2 : 0;
    default:
      return 0;
  }
}

OXValue methodRecord(const OXMethodInfo& pInfo) {
  OXValue params;
  params.arraySetSize(0);
  for (const auto& param : pInfo.parameters) {
    params.arrayPush(std::vector<std::string>{param.name, param.description, param.type});
  }
  OXValue examples;
  examples.arraySetSize(0);
  for (const auto& example : pInfo.examples) {
    examples.arrayPush(std::vector<std::string>{example.language, example.text});
  }
  OXValue record;
  record.arrayPush(pInfo.name);
  record.arrayPush(pInfo.className);
  record.arrayPush(pInfo.description);
  record.arrayPush(pInfo.flags);
  record.arrayPush(params);
  record.arrayPush(
      std::vector<std::string>{pInfo.returnName, pInfo.returnDescription, pInfo.returnType});
  record.arrayPush(examples);
  record.arrayPush(pInfo.binding == OXMethodInfo::kBindMethod ? "bindMethod"
                                                              : "bindMethodOverload");
  return record;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// OXBrokerManager

boost::shared_ptr<OXBrokerManager> OXBrokerManager::getInstance() {
  std::lock_guard<std::mutex> guard(managerMutex());
  if (!managerSlot()) managerSlot().reset(new OXBrokerManager());
  return managerSlot();
}

void OXBrokerManager::setInstance(boost::shared_ptr<OXBrokerManager> pManager) {
  std::lock_guard<std::mutex> guard(managerMutex());
  managerSlot() = std::move(pManager);
}

void OXBrokerManager::addBroker(boost::shared_ptr<OXBroker> pBroker) {
  if (!pBroker) return;
  std::lock_guard<std::mutex> guard(fMutex);
  fBrokers.erase(std::remove_if(fBrokers.begin(), fBrokers.end(),
                                [&](const boost::weak_ptr<OXBroker>& pKnown) {
                                  return pKnown.expired() || pKnown.lock() == pBroker;
                                }),
                 fBrokers.end());
  fBrokers.push_back(pBroker);
}

std::vector<boost::shared_ptr<OXBroker>> OXBrokerManager::getBrokers() const {
  std::lock_guard<std::mutex> guard(fMutex);
  std::vector<boost::shared_ptr<OXBroker>> brokers;
  for (const auto& known : fBrokers) {
    if (auto broker = known.lock()) brokers.push_back(broker);
  }
  return brokers;
}

// ---------------------------------------------------------------------------------------------
// OXProxy

namespace {

std::mutex sClientNameMutex;
std::string sClientName;  // empty: the program's name
std::atomic<int> sRemoteTimeoutMs{30000};

}  // namespace

OXProxy::OXProxy(boost::shared_ptr<OXBroker> pBroker, const std::string& pModuleName)
    : fBroker(pBroker), fModuleName(pModuleName) {}

OXProxy::~OXProxy() = default;

std::string OXProxy::getUrl() const {
  return fRemote ? fRemote->getUrl() : std::string();
}

void OXProxy::setClientName(const std::string& pName) {
  std::lock_guard<std::mutex> guard(sClientNameMutex);
  sClientName = pName;
}

std::string OXProxy::getClientName() {
  std::lock_guard<std::mutex> guard(sClientNameMutex);
  if (!sClientName.empty()) return sClientName;
  return std::string(program_invocation_short_name) + "-" + std::to_string(getpid());
}

void OXProxy::setRemoteTimeout(int pMilliseconds) {
  sRemoteTimeoutMs = pMilliseconds;
}

int OXProxy::getRemoteTimeout() {
  return sRemoteTimeoutMs;
}

boost::shared_ptr<OXModuleCore> OXProxy::module() const {
  boost::shared_ptr<OXBroker> broker = fBroker.lock();
  boost::shared_ptr<OXModuleCore> found;
  if (broker) found = broker->getModuleCoreByName(fModuleName);
  if (!found) {
    throw OXError("OXProxy", fModuleName, "module " + fModuleName + " is no longer available",
                  kBrokerFile, __LINE__);
  }
  return found;
}

OXValue OXProxy::genericCall(const std::string& pMethod, const OXValue& pArguments) {
  if (fRemote) {
    // Built by hand: a braced list would copy the arguments, an image's pixels among them, twice.
    OXValue::Array operands;
    operands.reserve(3);
    operands.emplace_back(fModuleName);
    operands.emplace_back(pMethod);
    operands.push_back(pArguments);
    return fRemote->request("call", std::move(operands), pMethod);
  }
  OXValue result;
  module()->execute(pMethod, pArguments, result);
  return result;
}

std::vector<std::string> OXProxy::getMethodList() {
  if (!fRemote) return module()->getMethodList();
  const OXValue names = fRemote->request("methods", {fModuleName}, "getMethodList");
  std::vector<std::string> list;
  for (int i = 0; i < names.getSize(); ++i) list.push_back(names[i].asString());
  return list;
}

OXValue OXProxy::getMethodHelp(const std::string& pMethod) {
  if (!fRemote) return module()->getMethodHelp(pMethod);
  return fRemote->request("help", {fModuleName, pMethod}, "getMethodHelp");
}

OXValue OXProxy::getModuleHelp() {
  if (!fRemote) return module()->getModuleHelp();
  return describe()[0];
}

OXValue OXProxy::describe() {
  if (!fRemote) return module()->describe();
  return fRemote->request("describe", {fModuleName}, "describe");
}

// ---------------------------------------------------------------------------------------------
// OXModuleCore

OXModuleCore::OXModuleCore(boost::shared_ptr<OXBroker> pBroker, const std::string& pName)
    : fBroker(pBroker), fName(pName) {}

OXModuleCore::~OXModuleCore() = default;

std::string OXModuleCore::version() {
  return "1.0";
}

void OXModuleCore::initModule() {
  boost::shared_ptr<OXBroker> broker = getParentBroker();
  if (!broker) {
    throw OXError(fName, "initModule", "the module's broker is gone", kBrokerFile, __LINE__);
  }
  broker->registerModule(shared_from_this());
}

boost::shared_ptr<OXBroker> OXModuleCore::getParentBroker() const {
  return fBroker.lock();
}

void OXModuleCore::setModuleDescription(const std::string& pDescription) {
  std::unique_lock<std::shared_mutex> guard(fTableMutex);
  fModuleDescription = pDescription;
}

void OXModuleCore::addModuleExample(const std::string& pLanguage, const std::string& pText) {
  std::unique_lock<std::shared_mutex> guard(fTableMutex);
  fModuleExamples.push_back({pLanguage, pText});
}

// The description being built is touched only by the thread that binds (a constructor).
void OXModuleCore::functionName(const std::string& pName, const std::string& pClassName,
                                const std::string& pDescription, int pFlags) {
  fCurrent = OXMethodInfo();
  fCurrent.name = pName;
  fCurrent.className = pClassName;
  fCurrent.description = pDescription;
  fCurrent.flags = pFlags;
}

void OXModuleCore::addParam(const std::string& pName, const std::string& pDescription) {
  fCurrent.parameters.push_back({pName, pDescription, ""});
}

void OXModuleCore::setReturn(const std::string& pName, const std::string& pDescription) {
  fCurrent.returnName = pName;
  fCurrent.returnDescription = pDescription;
}

void OXModuleCore::addMethodExample(const std::string& pLanguage, const std::string& pText) {
  fCurrent.examples.push_back({pLanguage, pText});
}

void OXModuleCore::bindMethod(boost::shared_ptr<OXFunctorBase> pFunctor) {
  bind(std::move(pFunctor), OXMethodInfo::kBindMethod);
}

void OXModuleCore::bindMethodOverload(boost::shared_ptr<OXFunctorBase> pFunctor) {
  bind(std::move(pFunctor), OXMethodInfo::kBindMethodOverload);
}

void OXModuleCore::bind(boost::shared_ptr<OXFunctorBase> pFunctor, OXMethodInfo::Binding pBinding) {
  if (fCurrent.name.empty() || !pFunctor) {
    throw OXError(fName, "bindMethod", "a method is bound without functionName or functor",
                  kBrokerFile, __LINE__);
  }
  fCurrent.functor = std::move(pFunctor);
  fCurrent.binding = pBinding;
  std::unique_lock<std::shared_mutex> guard(fTableMutex);
  fMethods.push_back(fCurrent);
  fCurrent = OXMethodInfo();
}

const OXMethodInfo* OXModuleCore::resolve(const std::string& pMethod,
                                          const OXValue& pArguments) const {
  const int count = pArguments.isArray() ? pArguments.getSize() : 0;
  const OXMethodInfo* best = nullptr;
  const OXMethodInfo* sameArity = nullptr;
  int bestScore = -1;
  bool known = false;
  std::string arities;
  for (const OXMethodInfo& info : fMethods) {
    if (info.name != pMethod) continue;
    known = true;
    arities += (arities.empty() ? "" : ", ") + std::to_string(info.arity);
    if (info.arity != count) continue;
    sameArity = &info;
    int score = 0;
    for (int k = 0; k < count && score >= 0; ++k) {
      const int fit = fitness(info.argumentTypes[k], pArguments[k].getType());
      score = fit == 0 ? -1 : score + fit;
    }
    // Later publications win ties, so that a class can publish over what its base published.
    if (score >= 0 && score >= bestScore) {
      best = &info;
      bestScore = score;
    }
  }
  if (!known) {
    throw OXError(fName, pMethod, "Method " + pMethod + " is not published by module " + fName,
                  kBrokerFile, __LINE__);
  }
  // Arguments of the wrong kind go to a publication of the right count, whose conversion then
  // says which argument is wrong.
  if (best == nullptr) best = sameArity;
  if (best == nullptr) {
    throw OXError(
        fName, pMethod,
        "Method " + pMethod + " takes " + arities + " argument(s), not " + std::to_string(count),
        kBrokerFile, __LINE__);
  }
  return best;
}

void OXModuleCore::execute(const std::string& pMethod, const OXValue& pArguments,
                           OXValue& pResult) {
  if (pArguments.isValid() && !pArguments.isArray()) {
    throw OXError(fName, pMethod, "the arguments of a call must be an array", kBrokerFile,
                  __LINE__);
  }
  boost::shared_ptr<OXFunctorBase> functor;
  int flags = 0;
  {
    std::shared_lock<std::shared_mutex> guard(fTableMutex);
    const OXMethodInfo* info = resolve(pMethod, pArguments);
    functor = info->functor;
    flags = info->flags;
  }
  // Refused before it runs: nothing is taken or held for a pointer that could not be used.
  if ((flags & OXMethodInfo::kSameProcessOnly) != 0 && isRemoteCall()) {
    throw OXError(fName, pMethod,
                  pMethod +
                      " is for the broker's process only: it deals in pointers valid "
                      "there, not in another process",
                  kBrokerFile, __LINE__);
  }
  const OXValue noArguments = [] {
    OXValue empty;
    empty.arraySetSize(0);
    return empty;
  }();
  // Only our own errors reach a caller. Anything else that escapes a method is a fault of ours:
  // its text (a library's words, e.g. an index check of the standard library) goes to the log,
  // and the caller learns which method failed.
  std::string internal;
  try {
    functor->call(pArguments.isArray() ? pArguments : noArguments, pResult);
    return;
  } catch (const OXError&) {
    throw;
  } catch (const std::exception& error) {
    internal = error.what();
  } catch (...) {
    internal = "an exception of unknown type";
  }
  ki::log::LogStream(ki::log::kLogError, "framework.broker", "", "execute", 0)
      << fName << "." << pMethod << ": " << internal;
  throw OXError(fName, pMethod,
                "Method " + pMethod + " failed on an internal error (logged by the host)",
                kBrokerFile, __LINE__);
}

std::vector<std::string> OXModuleCore::getMethodList() const {
  std::shared_lock<std::shared_mutex> guard(fTableMutex);
  std::vector<std::string> names;
  for (const OXMethodInfo& info : fMethods) {
    if (std::find(names.begin(), names.end(), info.name) == names.end()) {
      names.push_back(info.name);
    }
  }
  return names;
}

OXValue OXModuleCore::getMethodHelp(const std::string& pMethod) const {
  std::shared_lock<std::shared_mutex> guard(fTableMutex);
  OXValue help;
  help.arraySetSize(0);
  for (const OXMethodInfo& info : fMethods) {
    if (info.name == pMethod) help.arrayPush(methodRecord(info));
  }
  return help;
}

OXValue OXModuleCore::getModuleHelp() const {
  std::shared_lock<std::shared_mutex> guard(fTableMutex);
  OXValue examples;
  examples.arraySetSize(0);
  for (const auto& example : fModuleExamples) {
    examples.arrayPush(std::vector<std::string>{example.language, example.text});
  }
  OXValue help;
  help.arrayPush(fName);
  help.arrayPush(fModuleDescription);
  help.arrayPush(examples);
  return help;
}

OXValue OXModuleCore::describe() const {
  OXValue records;
  records.arraySetSize(0);
  for (const OXMethodInfo& info : getMethodTable()) records.arrayPush(methodRecord(info));
  return OXValue::array({getModuleHelp(), records});
}

std::vector<OXMethodInfo> OXModuleCore::getMethodTable() const {
  std::shared_lock<std::shared_mutex> guard(fTableMutex);
  return fMethods;
}

// ---------------------------------------------------------------------------------------------
// OXModule

OXModule::OXModule(boost::shared_ptr<OXBroker> pBroker, const std::string& pName)
    : OXModuleCore(pBroker, pName) {}

OXModule::~OXModule() = default;

void OXModule::exit() {
  boost::shared_ptr<OXBroker> broker = getParentBroker();
  if (broker && broker->getModuleCoreByName(getName()).get() == this) {
    broker->unregisterModule(getName());
  }
}

void OXModule::stop(int) {}
std::string OXModule::httpGet() {
  return getName();
}
void OXModule::init() {}

// ---------------------------------------------------------------------------------------------
// OXBroker

OXBroker::OXBroker(const std::string& pName, const std::vector<std::string>& pPreferencePaths)
    : fName(pName), fPreferencePaths(pPreferencePaths) {}

OXBroker::~OXBroker() {
  // Modules go newest first, after the registry has let go of them.
  std::vector<boost::shared_ptr<OXModuleCore>> modules;
  modules.swap(fModules);
  while (!modules.empty()) modules.pop_back();
}

boost::shared_ptr<OXBroker> OXBroker::createBroker(
    const std::string& pName, const std::vector<std::string>& pPreferencePaths) {
  boost::shared_ptr<OXBroker> broker(new OXBroker(pName, pPreferencePaths));
  boost::shared_ptr<OXBrokerManager> manager = OXBrokerManager::getInstance();
  broker->fBrokerManager = manager;
  manager->addBroker(broker);
  OXModule::createModule<OXMemory>(broker);
  OXModule::createModule<OXPreferences>(broker);
  return broker;
}

boost::shared_ptr<OXProxy> OXBroker::getProxy(const std::string& pName, int) {
  if (!getModuleCoreByName(pName)) {
    throw OXError("OXBroker", "getProxy",
                  "no module named " + pName + " is registered with broker " + fName, kBrokerFile,
                  __LINE__);
  }
  return boost::shared_ptr<OXProxy>(new OXProxy(shared_from_this(), pName));
}

boost::shared_ptr<OXModuleCore> OXBroker::getModuleCoreByName(const std::string& pName) {
  std::shared_lock<std::shared_mutex> guard(fModulesMutex);
  for (const auto& module : fModules) {
    if (module->getName() == pName) return module;
  }
  return boost::shared_ptr<OXModuleCore>();
}

boost::shared_ptr<OXModule> OXBroker::getModuleByName(const std::string& pName) {
  return boost::dynamic_pointer_cast<OXModule>(getModuleCoreByName(pName));
}

std::vector<std::string> OXBroker::getModuleNames() const {
  std::shared_lock<std::shared_mutex> guard(fModulesMutex);
  std::vector<std::string> names;
  for (const auto& module : fModules) names.push_back(module->getName());
  return names;
}

void OXBroker::registerModule(boost::shared_ptr<OXModuleCore> pModule) {
  if (!pModule) return;
  std::unique_lock<std::shared_mutex> guard(fModulesMutex);
  for (const auto& module : fModules) {
    if (module->getName() == pModule->getName()) {
      throw OXError("OXBroker", "registerModule",
                    "a module named " + pModule->getName() + " is already registered", kBrokerFile,
                    __LINE__);
    }
  }
  fModules.push_back(pModule);
}

bool OXBroker::unregisterModule(const std::string& pName) {
  boost::shared_ptr<OXModuleCore> leaving;  // released after the lock is given up
  std::unique_lock<std::shared_mutex> guard(fModulesMutex);
  for (auto it = fModules.begin(); it != fModules.end(); ++it) {
    if ((*it)->getName() == pName) {
      leaving = *it;
      fModules.erase(it);
      guard.unlock();
      return true;
    }
  }
  return false;
}

void OXBroker::setFilePolicy(boost::shared_ptr<const OXFilePolicy> pPolicy) {
  std::lock_guard<std::mutex> guard(fPolicyMutex);
  fFilePolicy = std::move(pPolicy);
}

boost::shared_ptr<const OXFilePolicy> OXBroker::getFilePolicy() const {
  std::lock_guard<std::mutex> guard(fPolicyMutex);
  return fFilePolicy;
}

void OXBroker::removeAllModules() {
  std::vector<boost::shared_ptr<OXModuleCore>> modules;
  {
    std::unique_lock<std::shared_mutex> guard(fModulesMutex);
    modules.swap(fModules);
  }
  while (!modules.empty()) modules.pop_back();
}

}  // namespace OX
