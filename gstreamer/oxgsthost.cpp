// The host settings of both elements; see oxgsthost.h.
#include "oxgsthost.h"

namespace oxgst {

namespace {
constexpr GParamFlags kReadWrite =
    static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
constexpr GParamFlags kReadyOnly = static_cast<GParamFlags>(kReadWrite | GST_PARAM_MUTABLE_READY);

using SharedMemory = OX::ConnectOptions::SharedMemory;

GType registerSharedMemory() {
  static const GEnumValue values[] = {
      {static_cast<int>(SharedMemory::kAuto),
       "Through a shared-memory area when the host is on this machine and offers one", "auto"},
      {static_cast<int>(SharedMemory::kNever), "Always through the socket", "never"},
      {static_cast<int>(SharedMemory::kRequire), "Through a shared-memory area, or not at all",
       "require"},
      {0, nullptr, nullptr}};
  return g_enum_register_static("GstOxSharedMemory", values);
}

// The enumeration of the shared-memory property.
GType sharedMemoryEnumType() {
  static const GType type = registerSharedMemory();
  return type;
}

}  // namespace

std::string HostSettings::url() const {
  return fUrl.empty() ? "tcp://" + fHost + ":" + std::to_string(fPort) : fUrl;
}

OX::ConnectOptions HostSettings::connectOptions(int pRequestTimeoutMs) const {
  OX::ConnectOptions options;
  options.fServerKey = fServerKey;
  options.fClientKey = fClientKey;
  options.fSharedMemory = fSharedMemory;
  options.fTimeoutMs = pRequestTimeoutMs;
  return options;
}

std::string stringOf(const GValue* pValue) {
  const char* text = g_value_get_string(pValue);
  return text == nullptr ? std::string() : std::string(text);
}

void installHostProperties(GObjectClass* pClass, const char* pTimeoutBlurb) {
  const HostSettings defaults;
  g_object_class_install_property(
      pClass, kPropHost,
      g_param_spec_string("host", "Host", "Address of the broker host (used when url is not set)",
                          defaults.fHost.c_str(), kReadyOnly));
  g_object_class_install_property(
      pClass, kPropPort,
      g_param_spec_int("port", "Port", "TCP port of the broker host (used when url is not set)", 1,
                       65535, defaults.fPort, kReadyOnly));
  g_object_class_install_property(
      pClass, kPropUrl,
      g_param_spec_string("url", "URL",
                          "ZeroMQ address of the broker host, such as tcp://127.0.0.1:7761; "
                          "when set, host and port are not used",
                          nullptr, kReadyOnly));
  g_object_class_install_property(
      pClass, kPropServerKey,
      g_param_spec_string("server-key", "Server key",
                          "CURVE: file of the broker's public key (oxkeygen); give client-key too",
                          nullptr, kReadyOnly));
  g_object_class_install_property(
      pClass, kPropClientKey,
      g_param_spec_string("client-key", "Client key",
                          "CURVE: file of this client's secret key (oxkeygen); give server-key too",
                          nullptr, kReadyOnly));
  g_object_class_install_property(
      pClass, kPropSharedMemory,
      g_param_spec_enum("shared-memory", "Shared memory",
                        "Whether the host's replies bring images through a shared-memory area "
                        "(a host on this machine only; docs/shared-memory.md)",
                        sharedMemoryEnumType(), static_cast<int>(defaults.fSharedMemory),
                        kReadyOnly));
  gst_type_mark_as_plugin_api(sharedMemoryEnumType(), static_cast<GstPluginAPIFlags>(0));
  g_object_class_install_property(pClass, kPropTimeout,
                                  g_param_spec_int("timeout", "Timeout", pTimeoutBlurb, 100,
                                                   3600000, defaults.fTimeoutMs, kReadyOnly));
}

bool setHostProperty(GstObject* pObject, HostSettings& pSettings, guint pId, const GValue* pValue) {
  GST_OBJECT_LOCK(pObject);
  bool known = true;
  switch (pId) {
    case kPropHost:
      pSettings.fHost = stringOf(pValue);
      break;
    case kPropPort:
      pSettings.fPort = g_value_get_int(pValue);
      break;
    case kPropUrl:
      pSettings.fUrl = stringOf(pValue);
      break;
    case kPropServerKey:
      pSettings.fServerKey = stringOf(pValue);
      break;
    case kPropClientKey:
      pSettings.fClientKey = stringOf(pValue);
      break;
    case kPropTimeout:
      pSettings.fTimeoutMs = g_value_get_int(pValue);
      break;
    case kPropSharedMemory:
      pSettings.fSharedMemory = static_cast<SharedMemory>(g_value_get_enum(pValue));
      break;
    default:
      known = false;
  }
  GST_OBJECT_UNLOCK(pObject);
  return known;
}

bool getHostProperty(GstObject* pObject, const HostSettings& pSettings, guint pId, GValue* pValue) {
  const auto setString = [pValue](const std::string& pText) {
    g_value_set_string(pValue, pText.empty() ? nullptr : pText.c_str());
  };
  GST_OBJECT_LOCK(pObject);
  bool known = true;
  switch (pId) {
    case kPropHost:
      setString(pSettings.fHost);
      break;
    case kPropPort:
      g_value_set_int(pValue, pSettings.fPort);
      break;
    case kPropUrl:
      setString(pSettings.fUrl);
      break;
    case kPropServerKey:
      setString(pSettings.fServerKey);
      break;
    case kPropClientKey:
      setString(pSettings.fClientKey);
      break;
    case kPropTimeout:
      g_value_set_int(pValue, pSettings.fTimeoutMs);
      break;
    case kPropSharedMemory:
      g_value_set_enum(pValue, static_cast<int>(pSettings.fSharedMemory));
      break;
    default:
      known = false;
  }
  GST_OBJECT_UNLOCK(pObject);
  return known;
}

}  // namespace oxgst
