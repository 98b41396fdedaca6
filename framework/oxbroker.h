// Brokers, modules, the method table and proxies.
//
// A broker keeps the modules registered with it alive and finds them by name; a module publishes
// methods in its method table, described as they are bound; a proxy calls a module's published
// methods by name with an OXValue array of arguments. Every operation here is thread-safe.
#pragma once

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "oxerror.h"
#include "oxmethodinfo.h"
#include "oxvalue.h"

namespace OX {

class OXBroker;
class OXFilePolicy;
struct ConnectOptions;
class OXModule;
class OXModuleCore;

// The transport of a remote proxy. The net library provides it, together with the remote
// constructors of OXProxy below, so that this layer knows nothing of sockets: a program that makes
// remote proxies links that library.
class OXRemoteChannel {
 public:
  virtual ~OXRemoteChannel() = default;
  // Sends one request [version, id, pOperation, operands...] and returns the result of its reply;
  // an error reply is raised as the OXError it carries. pFunction names the caller's operation in
  // the errors of the transport itself.
  virtual OXValue request(const std::string& pOperation, OXValue::Array pOperands,
                          const std::string& pFunction) = 0;
  virtual const std::string& getUrl() const = 0;
};

// The process's registry of brokers.
class OXBrokerManager {
 public:
  // The process's manager, made on first use.
  static boost::shared_ptr<OXBrokerManager> getInstance();
  // Replaces the process's manager; an empty pointer makes getInstance create a new one.
  static void setInstance(boost::shared_ptr<OXBrokerManager> pManager);

  // Remembers a broker (weakly: brokers are owned by whoever made them).
  void addBroker(boost::shared_ptr<OXBroker> pBroker);
  std::vector<boost::shared_ptr<OXBroker>> getBrokers() const;

 private:
  mutable std::mutex fMutex;
  std::vector<boost::weak_ptr<OXBroker>> fBrokers;
};

// A proxy on one module of a broker. In-process, genericCall runs the published method in the
// caller's thread; a remote proxy sends the call to a broker host in another process and waits
// for its reply. Copies of a remote proxy share one connection; calls through one connection are
// served one after the other, so threads that call at once should each have their own proxy.
class OXProxy {
 public:
  OXProxy(boost::shared_ptr<OXBroker> pBroker, const std::string& pModuleName);
  // A proxy on the module pModuleName of the broker host at tcp://pHost:pPort. It introduces this
  // process under the client name (setClientName) and throws OXError when the broker does not
  // answer within the remote timeout or hosts no such module. Defined by the net library.
  OXProxy(const std::string& pModuleName, const std::string& pHost, int pPort);
  // The same for a ZeroMQ address such as "tcp://127.0.0.1:7761". Defined by the net library.
  static boost::shared_ptr<OXProxy> connect(const std::string& pUrl,
                                            const std::string& pModuleName);
  // The same with the options of the connection (net/oxconnectoptions.h), such as CURVE keys;
  // throws OXError when a key file cannot be read. Defined by the net library.
  static boost::shared_ptr<OXProxy> connect(const std::string& pUrl, const std::string& pModuleName,
                                            const ConnectOptions& pOptions);
  virtual ~OXProxy();

  // Calls a published method with its arguments as an array (an invalid value means none).
  // An unknown method, arguments that fit no signature, or a failed call throw OXError.
  virtual OXValue genericCall(const std::string& pMethod, const OXValue& pArguments);
  // Published method names, each once, in the order of their first publication.
  virtual std::vector<std::string> getMethodList();
  // Every publication of that name: an array of records (see OXModuleCore::getMethodHelp).
  virtual OXValue getMethodHelp(const std::string& pMethod);
  // [name, description, [[language, text], ...]].
  virtual OXValue getModuleHelp();
  // [getModuleHelp(), [record, ...]]: every publication in order of binding, each record as in
  // getMethodHelp.
  virtual OXValue describe();

  const std::string& getModuleName() const { return fModuleName; }
  // Null for a remote proxy.
  boost::shared_ptr<OXBroker> getBroker() const { return fBroker.lock(); }
  bool isRemote() const { return fRemote != nullptr; }
  // The address of the broker host of a remote proxy, empty in-process.
  std::string getUrl() const;
  // The transport of a remote proxy, null in-process: for what only the net library offers.
  OXRemoteChannel* getRemoteChannel() const { return fRemote.get(); }

  // The name under which remote proxies made afterwards introduce this process (by default the
  // program's name and the process id, "oxgrab-4242", so that two processes never share it
  // unless told to); the broker raises "ClientDisconnected" with it when the last session under
  // that name ends.
  static void setClientName(const std::string& pName);
  static std::string getClientName();
  // How long a remote proxy waits for a reply before it throws OXError (default 30000 ms).
  static void setRemoteTimeout(int pMilliseconds);
  static int getRemoteTimeout();

 protected:
  boost::shared_ptr<OXModuleCore> module() const;  // throws when the module is gone

 private:
  boost::weak_ptr<OXBroker> fBroker;
  std::string fModuleName;
  boost::shared_ptr<OXRemoteChannel> fRemote;
};

// The core of every module: its name, its broker and its method table.
class OXModuleCore : public boost::enable_shared_from_this<OXModuleCore> {
 public:
  OXModuleCore(boost::shared_ptr<OXBroker> pBroker, const std::string& pName);
  virtual ~OXModuleCore();
  OXModuleCore(const OXModuleCore&) = delete;
  OXModuleCore& operator=(const OXModuleCore&) = delete;

  // Resolves the overload of pMethod that fits the arguments and calls it. Throws OXError for an
  // unknown method or arguments that fit no publication; OXError raised by the method passes
  // through, and any other exception becomes an OXError with its text.
  virtual void execute(const std::string& pMethod, const OXValue& pArguments, OXValue& pResult);
  virtual std::string version();

  // Registers the module with its broker, which keeps it alive from then on.
  void initModule();
  boost::shared_ptr<OXBroker> getParentBroker() const;
  const std::string& getName() const { return fName; }

  void setModuleDescription(const std::string& pDescription);
  void addModuleExample(const std::string& pLanguage, const std::string& pText);

  // Describing a method as it is bound: functionName first, then addParam (in the order of the
  // arguments), setReturn and addMethodExample in any order, then bindMethod or
  // bindMethodOverload.
  void functionName(const std::string& pName, const std::string& pClassName,
                    const std::string& pDescription, int pFlags);
  void addParam(const std::string& pName, const std::string& pDescription);
  void setReturn(const std::string& pName, const std::string& pDescription);
  void addMethodExample(const std::string& pLanguage, const std::string& pText);
  OXMethodInfo& getCurrentMethodDescription() { return fCurrent; }
  void bindMethod(boost::shared_ptr<OXFunctorBase> pFunctor);
  void bindMethodOverload(boost::shared_ptr<OXFunctorBase> pFunctor);

  std::vector<std::string> getMethodList() const;
  // An array with one record per publication of that name, in order of binding; each record is
  // [name, className, description, flags, [[param, description, type], ...],
  //  [returnName, returnDescription, returnType], [[language, example], ...], binding], binding
  // being "bindMethod" or "bindMethodOverload". An unknown name gives an empty array.
  OXValue getMethodHelp(const std::string& pMethod) const;
  OXValue getModuleHelp() const;
  // A copy of the whole table, in order of binding.
  std::vector<OXMethodInfo> getMethodTable() const;
  // [getModuleHelp(), [record, ...]] with one record per publication, in order of binding.
  OXValue describe() const;

 private:
  void bind(boost::shared_ptr<OXFunctorBase> pFunctor, OXMethodInfo::Binding pBinding);
  const OXMethodInfo* resolve(const std::string& pMethod, const OXValue& pArguments) const;

  boost::weak_ptr<OXBroker> fBroker;
  std::string fName;
  mutable std::shared_mutex fTableMutex;
  std::string fModuleDescription;
  std::vector<OXMethodInfo::Example> fModuleExamples;
  std::vector<OXMethodInfo> fMethods;
  OXMethodInfo fCurrent;
};

// A module: the base of every service and device.
class OXModule : public OXModuleCore {
 public:
  OXModule(boost::shared_ptr<OXBroker> pBroker, const std::string& pName);
  ~OXModule() override;

  // Takes the module out of its broker; the broker then no longer keeps it alive.
  virtual void exit();
  virtual void stop(int pId);
  virtual std::string httpGet();
  virtual void init();

  // Builds a module of class T on the heap from the broker, wraps it in a shared pointer,
  // registers it with the broker (initModule), calls init() and returns it.
  template <class T>
  static boost::shared_ptr<T> createModule(boost::shared_ptr<OXBroker> pBroker) {
    boost::shared_ptr<T> module(new T(pBroker));
    module->initModule();
    module->init();
    return module;
  }
};

// Classes with a single instance per broker derive from it; it holds no data.
template <class T>
class OXSingleton {};

// A broker: keeps its modules alive, finds them by name, and knows where preferences live.
class OXBroker : public boost::enable_shared_from_this<OXBroker> {
 public:
  // A broker with its two services, OXMemory and OXPreferences, already registered, added to the
  // process's OXBrokerManager. pPreferencePaths are searched in order by readPrefFile.
  static boost::shared_ptr<OXBroker> createBroker(const std::string& pName,
                                                  const std::vector<std::string>& pPreferencePaths);
  ~OXBroker();
  OXBroker(const OXBroker&) = delete;
  OXBroker& operator=(const OXBroker&) = delete;

  boost::shared_ptr<OXBroker> getThis() { return shared_from_this(); }
  const std::string& getName() const { return fName; }
  const std::vector<std::string>& getPreferencePaths() const { return fPreferencePaths; }

  // A proxy on a registered module; throws OXError when there is none of that name.
  boost::shared_ptr<OXProxy> getProxy(const std::string& pName, int pFlags = 0);
  // A proxy of type T (constructed from a plain proxy), or null when no such module is registered.
  template <class T>
  boost::shared_ptr<T> getSpecialisedProxy(const std::string& pName) {
    if (!getModuleCoreByName(pName)) return boost::shared_ptr<T>();
    try {
      return boost::shared_ptr<T>(new T(getProxy(pName, 0)));
    } catch (const OXError&) {
      return boost::shared_ptr<T>();  // unregistered meanwhile
    }
  }

  // The module object itself (null when none), for callers in this process.
  boost::shared_ptr<OXModule> getModuleByName(const std::string& pName);
  boost::shared_ptr<OXModuleCore> getModuleCoreByName(const std::string& pName);
  std::vector<std::string> getModuleNames() const;

  // Registration, used by initModule; a second module of the same name is refused with OXError.
  void registerModule(boost::shared_ptr<OXModuleCore> pModule);
  // Drops the broker's reference to a module; false when there is none of that name.
  bool unregisterModule(const std::string& pName);
  // Drops every module, newest first, without calling exit(); used at shutdown.
  void removeAllModules();

  boost::weak_ptr<OXBrokerManager> getBrokerManager() const { return fBrokerManager; }

  // Where the files that remote callers name may be (oxfilepolicy.h); null, the default: paths
  // are opened as they are given. The broker host applies it to every call it serves.
  void setFilePolicy(boost::shared_ptr<const OXFilePolicy> pPolicy);
  boost::shared_ptr<const OXFilePolicy> getFilePolicy() const;

 private:
  OXBroker(const std::string& pName, const std::vector<std::string>& pPreferencePaths);

  std::string fName;
  std::vector<std::string> fPreferencePaths;
  boost::weak_ptr<OXBrokerManager> fBrokerManager;
  mutable std::shared_mutex fModulesMutex;
  std::vector<boost::shared_ptr<OXModuleCore>> fModules;  // in order of registration
  mutable std::mutex fPolicyMutex;
  boost::shared_ptr<const OXFilePolicy> fFilePolicy;
};

}  // namespace OX
