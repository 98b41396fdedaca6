// The JSON documents of the host's pages; see oxhttpdocuments.h.
#include "oxhttpdocuments.h"

#include <exception>

#include "kilog.h"
#include "oxbroker.h"
#include "oxtypes.h"
#include "toolimage.h"

namespace oxhttp {

namespace {

constexpr const char* kCategory = "net.http";

Json toJson(const OX::OXValue& pValue) {
  switch (pValue.getType()) {
    case OX::OXValue::TypeBool:
      return pValue.asBool();
    case OX::OXValue::TypeInt:
      return pValue.asInt();
    case OX::OXValue::TypeFloat:
      return pValue.asFloat();
    case OX::OXValue::TypeString:
      return pValue.asString();
    case OX::OXValue::TypeArray: {
      Json array = Json::array();
      for (int i = 0; i < pValue.getSize(); ++i) array.push_back(toJson(pValue[i]));
      return array;
    }
    case OX::OXValue::TypeBinary:
      return "<binary " + std::to_string(pValue.getSize()) + " bytes>";
    default:
      return nullptr;
  }
}

// The string at pIndex of an array, or "" when there is none.
std::string textAt(const OX::OXValue& pArray, int pIndex) {
  if (!pArray.isArray() || pArray.getSize() <= pIndex || !pArray[pIndex].isString()) return "";
  return pArray[pIndex].asString();
}

Json examples(const OX::OXValue& pList) {
  Json result = Json::array();
  for (int i = 0; pList.isArray() && i < pList.getSize(); ++i) {
    result.push_back({{"language", textAt(pList[i], 0)}, {"text", textAt(pList[i], 1)}});
  }
  return result;
}

// One record of describe(): [name, className, description, flags, [[param, description, type],
// ...], [returnName, returnDescription, returnType], [[language, example], ...], binding].
Json publication(const OX::OXValue& pRecord) {
  Json parameters = Json::array();
  const OX::OXValue& list = pRecord[4];
  for (int i = 0; list.isArray() && i < list.getSize(); ++i) {
    parameters.push_back({{"name", textAt(list[i], 0)},
                          {"description", textAt(list[i], 1)},
                          {"type", textAt(list[i], 2)}});
  }
  return {{"name", textAt(pRecord, 0)},
          {"className", textAt(pRecord, 1)},
          {"description", textAt(pRecord, 2)},
          {"flags", pRecord[3].isInt() ? pRecord[3].asInt() : 0},
          {"parameters", parameters},
          {"return",
           {{"name", textAt(pRecord[5], 0)},
            {"description", textAt(pRecord[5], 1)},
            {"type", textAt(pRecord[5], 2)}}},
          {"examples", examples(pRecord[6])},
          {"binding", textAt(pRecord, 7)}};
}

Json liveView(const LiveView& pView) {
  const LiveRequest& request = pView.fRequest;
  return {{"subscriber", pView.fSubscriber},
          {"view", request.fToken},
          {"client", pView.fClient},
          {"camera", request.fCamera},
          {"resolution", request.fResolution},
          {"colorSpace", request.fColorSpace},
          {"colorSpaceName", oxtools::colorSpaceName(request.fColorSpace)},
          {"fps", request.fFps},
          {"seconds", std::chrono::duration<double>(Clock::now() - pView.fStarted).count()},
          {"frames", pView.fFrames.load()},
          {"bytes", pView.fBytes.load()},
          {"rate", pView.fRate.load()},
          {"imageAgeMs", pView.fImageAgeMs.load()}};
}

}  // namespace

bool moduleStatus(const boost::shared_ptr<OX::OXBroker>& pBroker, const std::string& pModule,
                  ModuleStatus& pStatus) {
  const boost::shared_ptr<OX::OXModuleCore> module = pBroker->getModuleCoreByName(pModule);
  auto* status = dynamic_cast<OX::OXModuleStatus*>(module.get());
  if (status == nullptr) return false;
  pStatus.fModule = pModule;
  pStatus.fEntries = status->getStatus();
  return true;
}

std::vector<ModuleStatus> moduleStatuses(const boost::shared_ptr<OX::OXBroker>& pBroker) {
  std::vector<ModuleStatus> statuses;
  for (const std::string& name : pBroker->getModuleNames()) {
    ModuleStatus status;
    try {
      if (moduleStatus(pBroker, name, status)) statuses.push_back(std::move(status));
    } catch (const std::exception& error) {
      ki::log::LogStream(ki::log::kLogWarning, kCategory, "", "moduleStatuses", 0)
          << "the status of " << name << " failed: " << error.what();
    }
  }
  return statuses;
}

Json hostDocument(const boost::shared_ptr<OX::OXBroker>& pBroker, const OX::net::HostStatus& pHost,
                  const LiveViews& pViews) {
  Json modules = Json::array();
  for (const std::string& name : pBroker->getModuleNames()) {
    const boost::shared_ptr<OX::OXModuleCore> module = pBroker->getModuleCoreByName(name);
    if (!module) continue;
    modules.push_back({{"name", name},
                       {"methods", module->getMethodList().size()},
                       {"status", dynamic_cast<OX::OXModuleStatus*>(module.get()) != nullptr}});
  }
  Json sessions = Json::array();
  for (const OX::net::SessionView& session : pHost.fSessions) {
    sessions.push_back({{"name", session.fName},
                        {"address", session.fAddress},
                        {"seconds", session.fSeconds},
                        {"subscribers", session.fSubscribers}});
  }
  return {{"name", pBroker->getName()},
          {"url", pHost.fUrl},
          {"uptimeSeconds", pHost.fUptimeSeconds},
          {"calls", pHost.fCalls},
          {"callsPerSecond", pHost.fCallRate},
          {"queued", pHost.fQueued},
          {"running", pHost.fRunning},
          {"workers", pHost.fWorkers},
          {"maxSessions", pHost.fMaxSessions},
          {"modules", modules},
          {"sessions", sessions},
          {"liveViews", {{"count", pViews.list().size()}, {"limit", pViews.limit()}}}};
}

Json moduleDocument(const std::string& pModule, const OX::OXValue& pDescription) {
  const OX::OXValue& help = pDescription[0];
  Json publications = Json::array();
  const OX::OXValue& records = pDescription[1];
  for (int i = 0; records.isArray() && i < records.getSize(); ++i) {
    publications.push_back(publication(records[i]));
  }
  return {{"name", pModule},
          {"description", textAt(help, 1)},
          {"examples", examples(help[2])},
          {"publications", publications}};
}

Json statusDocument(const ModuleStatus& pStatus, const LiveViews& pViews) {
  const std::vector<std::shared_ptr<const LiveView>> views = pViews.list();
  Json kinds = Json::object();
  for (const OX::OXStatusEntry& entry : pStatus.fEntries) {
    Json fields = Json::object();
    for (const auto& field : entry.fFields) fields[field.first] = toJson(field.second);
    Json counts = Json::object();
    for (const OX::OXStatusEntry::Count& count : entry.fCounts) counts[count.fName] = count.fValue;
    Json item = {{"id", entry.fId}, {"fields", fields}, {"counts", counts}};
    for (const auto& view : views) {
      if (view->fSubscriber == entry.fId) item["liveView"] = liveView(*view);
    }
    if (!kinds.contains(entry.fKind)) kinds[entry.fKind] = Json::array();
    kinds[entry.fKind].push_back(item);
  }
  return {{"module", pStatus.fModule}, {"kinds", kinds}};
}

Json liveDocument(const LiveViews& pViews) {
  Json views = Json::array();
  for (const auto& view : pViews.list()) views.push_back(liveView(*view));
  return {{"limit", pViews.limit()}, {"views", views}};
}

Json formatsDocument() {
  Json resolutions = Json::array();
  const char* names[] = {"qqvga", "qvga", "vga", "4vga"};
  for (int resolution = OX::kQQVGA; resolution <= OX::k4VGA; ++resolution) {
    int width = 0;
    int height = 0;
    OX::setSizeFromResolution(resolution, width, height);
    resolutions.push_back(
        {{"id", resolution}, {"name", names[resolution]}, {"width", width}, {"height", height}});
  }
  Json colorSpaces = Json::array();
  for (int id = 0; id < 32; ++id) {
    const std::string name = oxtools::colorSpaceName(id);
    if (name != "unknown") colorSpaces.push_back({{"id", id}, {"name", name}});
  }
  return {{"resolutions", resolutions}, {"colorSpaces", colorSpaces}};
}

}  // namespace oxhttp
