// The module entry, loaded as a broker loads it: dlopen, then _createModule with brokers whose
// preference directory holds each kind of VideoInput.xml.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "oxbroker.h"
#include "testsupport.h"

namespace {

using CreateModule = int (*)(boost::shared_ptr<OX::OXBroker>);
using CloseModule = int (*)();

const char* const kCategory = "vision.videoinput";
const std::string kNoModule = "\nNo module will be loaded";

class EntryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fHandle = dlopen(vitest::libraryPath("libvideoinput.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(fHandle, nullptr) << dlerror();
    fCreate = reinterpret_cast<CreateModule>(dlsym(fHandle, "_createModule"));
    fClose = reinterpret_cast<CloseModule>(dlsym(fHandle, "_closeModule"));
    fPreferences = static_cast<OX::OXValue*>(dlsym(fHandle, "fPreferences"));
    ASSERT_NE(fCreate, nullptr);
    ASSERT_NE(fClose, nullptr);
    ASSERT_NE(fPreferences, nullptr);
  }
  void TearDown() override {
    if (fHandle != nullptr) dlclose(fHandle);
  }

  // Runs _createModule on a fresh broker whose preference directory holds pXml (none if empty),
  // starting from an unread preference; the broker is kept through pBroker when given.
  int create(const std::string& pXml, bool pWithPreferenceService = true,
             boost::shared_ptr<OX::OXBroker>* pBroker = nullptr) {
    vitest::TempDir directory;
    if (!pXml.empty()) directory.write("VideoInput.xml", pXml);
    boost::shared_ptr<OX::OXBroker> broker =
        OX::OXBroker::createBroker("entry-test", {directory.path()});
    if (!pWithPreferenceService) broker->unregisterModule("OXPreferences");
    *fPreferences = OX::OXValue();
    if (pBroker != nullptr) *pBroker = broker;
    return fCreate(broker);
  }

  static std::string preferenceFile(const std::string& pValue, const std::string& pType = "string",
                                    const std::string& pEntryName = "ModuleName") {
    return "<?xml version=\"1.0\"?>\n<ModulePreference name=\"VideoInput\">\n"
           "  <Preference name=\"" +
           pEntryName + "\" description=\"source\" value=\"" + pValue + "\" type=\"" + pType +
           "\"/>\n"
           "  <Preference name=\"Other\" description=\"\" value=\"MioCam\"/>\n"
           "</ModulePreference>\n";
  }

  void* fHandle = nullptr;
  CreateModule fCreate = nullptr;
  CloseModule fClose = nullptr;
  OX::OXValue* fPreferences = nullptr;
};

// The broker finds the entry points and objects by their plain C names. Each refusing branch
// gives result 1 and exactly its own records; no exception reaches the broker, the value of the
// first entry decides whatever the entry is called, and without a preference service the error
// text is logged as a warning.
TEST_F(EntryTest, RefusesEachSourceItCannotLoadWithItsRecords) {
  for (const char* name :
       {"_createModule", "_closeModule", "moduleNameMap", "fPreferences", "actualModule",
        "moduleNameId", "_videoinput_running", "_videoinput_termination"}) {
    EXPECT_NE(dlsym(fHandle, name), nullptr) << name;
  }
  const std::string failedRead =
      "VideoInput: Failed to read VideoInput.xml preference file." + kNoModule;
  struct Case {
    std::string xml;
    std::string message;
    bool withService = true;
  };
  const std::map<std::string, Case> cases = {
      {"no file", {"", failedRead}},
      {"no service", {preferenceFile("USBCam"), failedRead, false}},
      {"not a string", {preferenceFile("2", "int"), failedRead}},
      {"empty", {preferenceFile(""), failedRead}},
      {"unknown",
       {preferenceFile("Kinect"), "VideoInput: Unknown module name: Kinect" + kNoModule}},
      {"other case",
       {preferenceFile("simulatorcam"),
        "VideoInput: Unknown module name: simulatorcam" + kNoModule}},
      {"USBCam", {preferenceFile("USBCam"), "VideoInput: unknown moduleId: 1"}},
      {"MioCam",
       {preferenceFile("MioCam", "string", "AnyName"),
        "Could not load MioCam: library was not build with I_AM_A_ROBOT compilation flag"}},
  };
  for (const auto& [label, testCase] : cases) {
    vitest::LogCapture capture;
    EXPECT_EQ(create(testCase.xml, testCase.withService), 1) << label;
    std::vector<ki::log::Record> errors;
    for (const auto& record : capture.records()) {
      if (record.level == 2) errors.push_back(record);
    }
    ASSERT_EQ(errors.size(), 1u) << label;
    EXPECT_EQ(errors[0].message, testCase.message) << label;
    EXPECT_EQ(errors[0].category, kCategory) << label;
    EXPECT_EQ(errors[0].function, "_createModule") << label;
    EXPECT_EQ(errors[0].line, 0) << label;
    // Only a missing file or service raises, which is then logged at level 3.
    const auto records = capture.records();
    const bool warned = records.size() == 2 && records[0].level == 3;
    EXPECT_EQ(warned, label == "no file" || label == "no service") << label;
    if (label == "no service" && warned) {
      EXPECT_NE(records[0].message.find("OXPreferences"), std::string::npos);
    }
  }
  auto* names = static_cast<std::map<std::string, int>*>(dlsym(fHandle, "moduleNameMap"));
  ASSERT_NE(names, nullptr);
  const std::map<std::string, int> expected = {
      {"MioCam", 0}, {"USBCam", 1}, {"SimulatorCam", 2}, {"FileCam", 3}};
  EXPECT_EQ(*names, expected);
  EXPECT_EQ(fClose(), 0);
}

// Each camera the library builds is loaded from its preference, as the device's only module.
TEST_F(EntryTest, LoadsTheSimulatorAndTheFileCamera) {
  for (const auto& [name, methods] : {std::pair{"SimulatorCam", 52u + 32u}, {"FileCam", 91u}}) {
    vitest::LogCapture capture;
    boost::shared_ptr<OX::OXBroker> broker;
    EXPECT_EQ(create(preferenceFile(name), true, &broker), 0) << name;
    EXPECT_TRUE(capture.has(5, kCategory, std::string("VideoInput: loading ") + name));
    const auto module = broker->getModuleByName("OXVideoDevice");
    ASSERT_TRUE(module) << name;
    EXPECT_EQ(module->getMethodTable().size(), methods) << name;
  }
  EXPECT_EQ(fClose(), 0);
}

// A preference read earlier is kept when a later read fails.
TEST_F(EntryTest, FailedReadKeepsTheEarlierPreference) {
  vitest::TempDir empty;
  vitest::TempDir withFile;
  withFile.write("VideoInput.xml", preferenceFile("USBCam"));
  *fPreferences = OX::OXValue();
  vitest::LogCapture capture;
  EXPECT_EQ(fCreate(OX::OXBroker::createBroker("first", {withFile.path()})), 1);
  EXPECT_EQ(fCreate(OX::OXBroker::createBroker("second", {empty.path()})), 1);
  EXPECT_EQ(capture.count("VideoInput: unknown moduleId: 1"), 2);
}

}  // namespace
