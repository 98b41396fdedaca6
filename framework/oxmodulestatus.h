// OXModuleStatus: what a module tells about itself beyond its published methods.
//
// A host that serves a broker's modules shows their state in its pages and exports their counts
// as metrics. A module that has something to show implements this interface beside OXModule; the
// host finds it by dynamic_cast on the module object. Nothing of it is published, so the module's
// method table stays exactly as its clients know it.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "oxvalue.h"

namespace OX {

// One thing that a module keeps (a camera, a subscriber...): what it is now and what it counted.
struct OXStatusEntry {
  // A number for the metrics: a counter only grows, a gauge is a value of the moment.
  struct Count {
    enum Kind { kCounter, kGauge };
    std::string fName;  // lower case and underscores, e.g. "images_delivered_total"
    std::string fHelp;
    Kind fKind = kCounter;
    double fValue = 0;
  };
  std::string fKind;  // e.g. "camera", "subscriber": entries of one kind share their fields
  std::string fId;    // unique within its kind
  std::vector<std::pair<std::string, OXValue>> fFields;  // in the order in which to show them
  std::vector<Count> fCounts;
};

class OXModuleStatus {
 public:
  virtual ~OXModuleStatus();
  // A snapshot, taken when asked: safe at any time, beside any call of the module, and cheap
  // enough to be asked a few times a second.
  virtual std::vector<OXStatusEntry> getStatus() = 0;
};

}  // namespace OX
