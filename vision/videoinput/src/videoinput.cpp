// The module entry: hooks the library to the loading broker, reads the one preference that names
// the video source, and creates that camera module.
#include "videoinput.h"

#include "kilog.h"
#include "oxproxies.h"
#include "cameras/file/oxvisionfilecam.h"
#include "cameras/simulator/oxvisionsimulatorcam.h"

namespace {
const std::string moduleVideoInputName = "VideoInput";
const char* const kCategory = "vision.videoinput";
}  // namespace

extern "C" {
OX::OXValue fPreferences;
std::map<std::string, int> moduleNameMap;
int actualModule = 0;
int moduleNameId = 0;
bool _videoinput_running = false;
unsigned char _videoinput_termination[40] = {};
}

extern "C" int _createModule(boost::shared_ptr<OX::OXBroker> pBroker) {
  if (!pBroker) {
    // Nothing to hook to: say so instead of following a null pointer.
    throw OX::OXError("VideoInput", "_createModule", "no broker given",
                      "vision/videoinput/src/videoinput", __LINE__);
  }
  // The library's view of the broker manager singleton must be the process's own.
  OX::OXBrokerManager::setInstance(pBroker->getBrokerManager().lock());
  OX::OXBrokerManager::getInstance()->addBroker(pBroker);

  moduleNameMap["MioCam"] = 0;
  moduleNameMap["USBCam"] = 1;
  moduleNameMap["SimulatorCam"] = 2;
  moduleNameMap["FileCam"] = 3;

  try {
    boost::shared_ptr<OX::OXPreferencesProxy> preferences(
        new OX::OXPreferencesProxy(pBroker->getProxy("OXPreferences", 0)));
    fPreferences = preferences->readPrefFile(moduleVideoInputName, true);
  } catch (const OX::OXError& error) {
    ki::log::LogStream(ki::log::kLogWarning, kCategory, "", "_createModule", 0) << error.toString();
  }

  std::string moduleName;
  try {
    const OX::OXValue& preferencesRead = fPreferences;
    moduleName = static_cast<const std::string&>(preferencesRead[0][2]);
  } catch (const OX::OXError&) {
    // Another layout, or no file: the name stays empty and is reported below.
  }

  if (moduleName.empty()) {
    ki::log::LogStream(ki::log::kLogError, kCategory, "", "_createModule", 0)
        << "VideoInput: Failed to read VideoInput.xml preference file." << std::endl
        << "No module will be loaded";
    return 1;
  }

  const auto found = moduleNameMap.find(moduleName);
  if (found == moduleNameMap.end()) {
    ki::log::LogStream(ki::log::kLogError, kCategory, "", "_createModule", 0)
        << "VideoInput: Unknown module name: " << moduleName << std::endl
        << "No module will be loaded";
    return 1;
  }

  switch (found->second) {
    case 2:
      ki::log::LogStream(ki::log::kLogVerbose, kCategory, "", "_createModule", 0)
          << "VideoInput: loading SimulatorCam";
      // The broker's registry keeps the module alive; the pointer is not needed here.
      OX::OXModule::createModule<OX::OXVisionSimulatorCam>(pBroker);
      return 0;
    case 3:
      ki::log::LogStream(ki::log::kLogVerbose, kCategory, "", "_createModule", 0)
          << "VideoInput: loading FileCam";
      OX::OXModule::createModule<OX::OXVisionFileCam>(pBroker);
      return 0;
    case 0:
      ki::log::LogStream(ki::log::kLogError, kCategory, "", "_createModule", 0)
          << "Could not load MioCam: library was not build with I_AM_A_ROBOT compilation flag";
      return 1;
    default:
      ki::log::LogStream(ki::log::kLogError, kCategory, "", "_createModule", 0)
          << "VideoInput: unknown moduleId: " << found->second;
      return 1;
  }
}

extern "C" int _closeModule() {
  return 0;
}
