// What both elements share: where the broker host is and how to reach it (host, port or url,
// the CURVE keys, the time after which a silent host counts as gone), as GObject properties.
#pragma once

#include <gst/gst.h>

#include <string>

#include "oxconnectoptions.h"

namespace oxgst {

constexpr const char* kModuleName = "OXVideoDevice";

struct HostSettings {
  std::string fHost = "127.0.0.1";
  int fPort = 7761;
  std::string fUrl;  // wins over host and port when not empty
  std::string fServerKey;
  std::string fClientKey;
  OX::ConnectOptions::SharedMemory fSharedMemory = OX::ConnectOptions::SharedMemory::kAuto;
  int fTimeoutMs = 5000;

  // fUrl, or tcp://host:port.
  std::string url() const;
  // The keys, the use of shared memory, and pRequestTimeoutMs as the wait for each reply.
  OX::ConnectOptions connectOptions(int pRequestTimeoutMs) const;
};

// The property ids of the host settings; an element numbers its own from kHostPropertyEnd.
enum HostProperty : guint {
  kPropHost = 1,
  kPropPort,
  kPropUrl,
  kPropServerKey,
  kPropClientKey,
  kPropTimeout,
  kPropSharedMemory,
  kHostPropertyEnd
};

// Installs host, port, url, server-key, client-key, shared-memory and timeout on a class.
// pTimeoutBlurb says what the element does when the host is silent for that long.
void installHostProperties(GObjectClass* pClass, const char* pTimeoutBlurb);
// Reads or writes one of them, under the object's lock; false for another property id.
bool setHostProperty(GstObject* pObject, HostSettings& pSettings, guint pId, const GValue* pValue);
bool getHostProperty(GstObject* pObject, const HostSettings& pSettings, guint pId, GValue* pValue);

// g_value's string, or "" for null.
std::string stringOf(const GValue* pValue);

}  // namespace oxgst
