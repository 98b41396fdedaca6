// What the host's pages read: JSON documents of the host, its modules, their status and the live
// views (docs/http.md describes each), and the same state as Prometheus metrics.
#pragma once

#include <boost/shared_ptr.hpp>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "oxlive.h"
#include "oxmetrics.h"
#include "oxmodulestatus.h"

namespace OX {
class OXBroker;
}

namespace oxhttp {

using Json = nlohmann::ordered_json;

// The status of one module that implements OXModuleStatus.
struct ModuleStatus {
  std::string fModule;
  std::vector<OX::OXStatusEntry> fEntries;
};

// Every module of the broker that implements OXModuleStatus, with its status now. A module whose
// status fails is left out, with a record.
std::vector<ModuleStatus> moduleStatuses(const boost::shared_ptr<OX::OXBroker>& pBroker);
// The module's status, or false when there is no such module or it tells none.
bool moduleStatus(const boost::shared_ptr<OX::OXBroker>& pBroker, const std::string& pModule,
                  ModuleStatus& pStatus);

// /api/host
Json hostDocument(const boost::shared_ptr<OX::OXBroker>& pBroker, const OX::net::HostStatus& pHost,
                  const LiveViews& pViews);
// /api/modules/NAME, from the module's describe(): its description, examples and every
// publication in the order of binding.
Json moduleDocument(const std::string& pModule, const OX::OXValue& pDescription);
// /api/devices/NAME
Json statusDocument(const ModuleStatus& pStatus, const LiveViews& pViews);
// /api/live
Json liveDocument(const LiveViews& pViews);
// /api/formats: the resolutions and colour spaces a live view can ask for.
Json formatsDocument();

// /metrics, in the Prometheus text format.
std::string metricsText(const OX::net::HostStatus& pHost, const std::vector<ModuleStatus>& pModules,
                        const LiveViews& pViews);

}  // namespace oxhttp
