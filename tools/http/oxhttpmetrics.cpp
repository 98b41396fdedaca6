// The host's metrics in the Prometheus text format, built at each scrape from the host's status,
// the modules' status and the live views, and written by prometheus-cpp's serializer.
#include <prometheus/client_metric.h>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <cctype>
#include <limits>
#include <map>

#include "oxhttpdocuments.h"

namespace oxhttp {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

// A metric or label name made of what a module chose: anything but letters, digits and _
// becomes _.
std::string metricName(const std::string& pText) {
  std::string name = pText.empty() ? "_" : pText;
  for (char& c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '_') c = '_';
  }
  if (std::isdigit(static_cast<unsigned char>(name[0])) != 0) name = "_" + name;
  return name;
}

MetricFamily family(const std::string& pName, const std::string& pHelp, MetricType pType) {
  MetricFamily made;
  made.name = pName;
  made.help = pHelp;
  made.type = pType;
  return made;
}

ClientMetric sample(double pValue, MetricType pType, std::vector<ClientMetric::Label> pLabels) {
  ClientMetric metric;
  metric.label = std::move(pLabels);
  if (pType == MetricType::Counter) {
    metric.counter.value = pValue;
  } else {
    metric.gauge.value = pValue;
  }
  return metric;
}

void addGauge(std::vector<MetricFamily>& pFamilies, const std::string& pName,
              const std::string& pHelp, double pValue) {
  MetricFamily made = family(pName, pHelp, MetricType::Gauge);
  made.metric.push_back(sample(pValue, MetricType::Gauge, {}));
  pFamilies.push_back(std::move(made));
}

// Calls, errors, bytes and latency per module and method.
void addMethods(std::vector<MetricFamily>& pFamilies, const OX::net::HostStatus& pHost) {
  MetricFamily calls =
      family("ox_host_calls_total", "Calls served, per module and method", MetricType::Counter);
  MetricFamily errors =
      family("ox_host_call_errors_total", "Calls answered with an error, per module and method",
             MetricType::Counter);
  MetricFamily requestBytes =
      family("ox_host_request_bytes_total", "Bytes of the calls' requests", MetricType::Counter);
  MetricFamily replyBytes =
      family("ox_host_reply_bytes_total", "Bytes of the calls' replies", MetricType::Counter);
  MetricFamily latency = family("ox_host_call_duration_seconds",
                                "Time a worker spent serving a call", MetricType::Histogram);
  for (const OX::net::MethodTotals& method : pHost.fMethods) {
    const std::vector<ClientMetric::Label> labels = {{"module", method.fModule},
                                                     {"method", method.fMethod}};
    calls.metric.push_back(sample(static_cast<double>(method.fCalls), MetricType::Counter, labels));
    errors.metric.push_back(
        sample(static_cast<double>(method.fErrors), MetricType::Counter, labels));
    requestBytes.metric.push_back(
        sample(static_cast<double>(method.fRequestBytes), MetricType::Counter, labels));
    replyBytes.metric.push_back(
        sample(static_cast<double>(method.fReplyBytes), MetricType::Counter, labels));
    ClientMetric histogram;
    histogram.label = labels;
    histogram.histogram.sample_count = method.fCalls;
    histogram.histogram.sample_sum = method.fSeconds;
    std::uint64_t cumulative = 0;
    for (std::size_t i = 0; i < method.fBuckets.size(); ++i) {
      cumulative += method.fBuckets[i];
      ClientMetric::Bucket bucket;
      bucket.cumulative_count = cumulative;
      bucket.upper_bound = i < OX::net::kLatencyBounds.size()
                               ? OX::net::kLatencyBounds[i]
                               : std::numeric_limits<double>::infinity();
      histogram.histogram.bucket.push_back(bucket);
    }
    latency.metric.push_back(std::move(histogram));
  }
  for (MetricFamily* made : {&calls, &errors, &requestBytes, &replyBytes, &latency}) {
    pFamilies.push_back(std::move(*made));
  }
}

// Each count of each module's status: ox_<kind>_<count>{module="...", <kind>="<id>"}.
void addModules(std::vector<MetricFamily>& pFamilies, const std::vector<ModuleStatus>& pModules) {
  std::map<std::string, MetricFamily> families;
  std::vector<std::string> order;
  for (const ModuleStatus& module : pModules) {
    for (const OX::OXStatusEntry& entry : module.fEntries) {
      const std::string kind = metricName(entry.fKind);
      for (const OX::OXStatusEntry::Count& count : entry.fCounts) {
        const MetricType type = count.fKind == OX::OXStatusEntry::Count::kCounter
                                    ? MetricType::Counter
                                    : MetricType::Gauge;
        const std::string name = "ox_" + kind + "_" + metricName(count.fName);
        auto found = families.find(name);
        if (found == families.end()) {
          found = families.emplace(name, family(name, count.fHelp, type)).first;
          order.push_back(name);
        }
        // A name that a module gives once as a counter and once as a gauge keeps the first.
        found->second.metric.push_back(sample(count.fValue, found->second.type,
                                              {{"module", module.fModule}, {kind, entry.fId}}));
      }
    }
  }
  for (const std::string& name : order) pFamilies.push_back(std::move(families[name]));
}

}  // namespace

std::string metricsText(const OX::net::HostStatus& pHost, const std::vector<ModuleStatus>& pModules,
                        const LiveViews& pViews) {
  std::vector<MetricFamily> families;
  addGauge(families, "ox_host_uptime_seconds", "Time since the host started", pHost.fUptimeSeconds);
  addGauge(families, "ox_host_sessions", "Client sessions",
           static_cast<double>(pHost.fSessions.size()));
  addGauge(families, "ox_host_queued_requests", "Requests waiting for a worker",
           static_cast<double>(pHost.fQueued));
  addGauge(families, "ox_host_running_requests", "Requests being served",
           static_cast<double>(pHost.fRunning));
  addGauge(families, "ox_http_live_views", "Live views being streamed",
           static_cast<double>(pViews.list().size()));
  addMethods(families, pHost);
  addModules(families, pModules);
  return prometheus::TextSerializer().Serialize(families);
}

}  // namespace oxhttp
