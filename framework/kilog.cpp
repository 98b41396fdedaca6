// ki::log: the handler registry, the stderr handler and the scoped stream.
#include "kilog.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>

namespace ki {
namespace log {
namespace {

using HandlerMap = std::map<int, Handler>;

// Handlers are kept in an immutable map that is replaced on change, so that records are delivered
// without holding the registry lock (a handler may itself log).
struct Registry {
  std::mutex fMutex;
  std::shared_ptr<const HandlerMap> fHandlers = std::make_shared<HandlerMap>();
  int fNextId = 1;
  std::atomic<int> fHandlerCount{0};
  std::atomic<int> fStderrThreshold{kLogWarning};
  std::atomic<bool> fStderrJson{false};
  std::mutex fStderrMutex;
  // Held shared while records are delivered, so that removeHandler can wait until no thread is
  // still calling a handler it removed.
  std::shared_mutex fDelivery;
};

// Deliveries under way on this thread: a handler that logs or removes a handler must not wait on
// its own delivery.
thread_local int tDeliveryDepth = 0;

Registry& registry() {
  static Registry* sRegistry = new Registry();  // never destroyed: records may come at exit
  return *sRegistry;
}

void appendJsonString(std::string& pOut, const std::string& pText) {
  pOut += '"';
  for (unsigned char c : pText) {
    switch (c) {
      case '"':
        pOut += "\\\"";
        break;
      case '\\':
        pOut += "\\\\";
        break;
      case '\n':
        pOut += "\\n";
        break;
      case '\r':
        pOut += "\\r";
        break;
      case '\t':
        pOut += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
          pOut += escaped;
        } else {
          pOut += static_cast<char>(c);
        }
    }
  }
  pOut += '"';
}

void writeToStderr(const Record& pRecord) {
  Registry& reg = registry();
  std::string line;
  if (reg.fStderrJson.load(std::memory_order_relaxed)) {
    line = "{\"level\":" + std::to_string(pRecord.level) + ",\"category\":";
    appendJsonString(line, pRecord.category);
    line += ",\"function\":";
    appendJsonString(line, pRecord.function);
    line += ",\"message\":";
    appendJsonString(line, pRecord.message);
    line += "}\n";
  } else {
    line = "[" + std::to_string(pRecord.level) + "] " + pRecord.category + " " + pRecord.function +
           ": " + pRecord.message + "\n";
  }
  std::lock_guard<std::mutex> guard(reg.fStderrMutex);
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

int addHandler(Handler pHandler) {
  Registry& reg = registry();
  std::lock_guard<std::mutex> guard(reg.fMutex);
  auto next = std::make_shared<HandlerMap>(*reg.fHandlers);
  const int id = reg.fNextId++;
  (*next)[id] = std::move(pHandler);
  reg.fHandlers = next;
  reg.fHandlerCount.store(static_cast<int>(next->size()));
  return id;
}

void removeHandler(int pId) {
  Registry& reg = registry();
  {
    std::lock_guard<std::mutex> guard(reg.fMutex);
    auto next = std::make_shared<HandlerMap>(*reg.fHandlers);
    next->erase(pId);
    reg.fHandlers = next;
    reg.fHandlerCount.store(static_cast<int>(next->size()));
  }
  // Deliveries that started before the swap may still call the removed handler: wait for them,
  // so that its owner may be destroyed as soon as this returns.
  if (tDeliveryDepth == 0) std::unique_lock<std::shared_mutex> drained(reg.fDelivery);
}

void setStderrThreshold(int pLevel) {
  registry().fStderrThreshold.store(pLevel);
}
int getStderrThreshold() {
  return registry().fStderrThreshold.load();
}
void setStderrJson(bool pJson) {
  registry().fStderrJson.store(pJson);
}

bool isEnabled(int pLevel) {
  const Registry& reg = registry();
  return reg.fHandlerCount.load(std::memory_order_relaxed) > 0 ||
         pLevel <= reg.fStderrThreshold.load(std::memory_order_relaxed);
}

void log(int pLevel, const std::string& pCategory, const std::string& pMessage,
         const std::string& pFile, const std::string& pFunction, int pLine) {
  if (!isEnabled(pLevel)) return;
  Registry& reg = registry();
  const Record record{pLevel, pCategory, pFile, pFunction, pLine, pMessage};
  if (pLevel <= reg.fStderrThreshold.load(std::memory_order_relaxed)) writeToStderr(record);
  std::shared_lock<std::shared_mutex> delivering(reg.fDelivery, std::defer_lock);
  if (tDeliveryDepth == 0) delivering.lock();
  std::shared_ptr<const HandlerMap> handlers;
  {
    std::lock_guard<std::mutex> guard(reg.fMutex);
    handlers = reg.fHandlers;
  }
  ++tDeliveryDepth;
  for (const auto& entry : *handlers) {
    try {
      entry.second(record);
    } catch (...) {
      // A failing handler must not turn logging into a failure of the caller.
    }
  }
  --tDeliveryDepth;
}

LogStream::LogStream(int pLevel, const std::string& pCategory, const std::string& pFile,
                     const std::string& pFunction, int pLine)
    : std::ostream(nullptr),
      fLevel(pLevel),
      fEnabled(isEnabled(pLevel)),
      fCategory(pCategory),
      fFile(pFile),
      fFunction(pFunction),
      fLine(pLine) {
  if (fEnabled) {
    rdbuf(&fBuffer);
  } else {
    setstate(std::ios_base::badbit);  // insertions become no-ops
  }
}

LogStream::~LogStream() {
  if (fEnabled) log(fLevel, fCategory, fBuffer.str(), fFile, fFunction, fLine);
}

}  // namespace log
}  // namespace ki
