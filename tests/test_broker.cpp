// Module lifetime, the OXMemory and OXPreferences services, concurrent calls, ki logs and clock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "kilog.h"
#include "kios.h"
#include "oxbroker.h"
#include "oxproxies.h"
#include "oxservices.h"
#include "oxvalue/detail/oxfunctor.h"
#include "testsupport.h"

namespace {

using namespace std::chrono_literals;
using OX::OXValue;
using Broker = boost::shared_ptr<OX::OXBroker>;

OXValue args(std::initializer_list<OXValue> pValues) {
  return OXValue::array(pValues);
}

// The description of the OXError that pCall must raise.
template <class F>
std::string failure(F pCall) {
  return vitest::raised(pCall).getDescription();
}

// A module that counts calls and records the events it receives, its exit and its end.
class Probe : public OX::OXModule {
 public:
  Probe(Broker pBroker, const std::string& pName, std::vector<std::string>* pEnds = nullptr)
      : OXModule(pBroker, pName), fEnds(pEnds) {
    functionName("increment", "Probe", "", 0);
    OX::detail::completeAndCheck(&Probe::increment, getCurrentMethodDescription());
    bindMethod(OX::detail::createFunctor(this, &Probe::increment));
    functionName("onEvent", "Probe", "", 0);
    OX::detail::completeAndCheck(&Probe::onEvent, getCurrentMethodDescription());
    bindMethod(OX::detail::createFunctor(this, &Probe::onEvent));
  }
  int increment() {
    std::lock_guard<std::mutex> guard(fMutex);
    return ++fCount;
  }
  virtual void onEvent(const std::string& pEvent, const OXValue& pValue, const std::string& pId) {
    fEvents.push_back(args({pEvent, pValue, pId}));
  }
  ~Probe() override {
    if (fEnds != nullptr) fEnds->push_back("~" + getName());
  }
  void exit() override {
    if (fEnds != nullptr) fEnds->push_back("exit " + getName());
    OXModule::exit();
  }

  std::mutex fMutex;
  int fCount = 0;
  std::vector<OXValue> fEvents;
  std::vector<std::string>* fEnds;
};

struct Listener : Probe {
  explicit Listener(Broker pBroker) : Probe(pBroker, "Listener") {}
};

struct Failing : Probe {
  explicit Failing(Broker pBroker) : Probe(pBroker, "Failing") {}
  void onEvent(const std::string&, const OXValue&, const std::string&) override {
    throw std::runtime_error("callback broke");
  }
};

// A module dropped too early, or registered twice under one name, breaks every later lookup.
TEST(BrokerTest, KeepsModulesAliveAndFindsThemByName) {
  Broker broker = OX::OXBroker::createBroker("test", {});
  boost::weak_ptr<Listener> watch = OX::OXModule::createModule<Listener>(broker);
  EXPECT_THROW(OX::OXModule::createModule<Listener>(broker), OX::OXError);
  EXPECT_EQ(broker->getModuleByName("Listener"), watch.lock());
  EXPECT_EQ(broker->getModuleNames(),
            (std::vector<std::string>{"OXMemory", "OXPreferences", "Listener"}));
  EXPECT_EQ(broker->getModuleByName("Ghost"), nullptr);
  EXPECT_EQ(failure([&] { broker->getProxy("Ghost"); }),
            "no module named Ghost is registered with broker test");

  boost::shared_ptr<OX::OXProxy> proxy = broker->getProxy("Listener");
  EXPECT_TRUE(broker->unregisterModule("Listener"));
  EXPECT_FALSE(broker->unregisterModule("Listener"));
  EXPECT_TRUE(watch.expired());
  EXPECT_THROW(proxy->genericCall("increment", OXValue()), OX::OXError);

  broker->unregisterModule("OXMemory");
  EXPECT_EQ(broker->getSpecialisedProxy<OX::OXMemoryProxy>("OXMemory"), nullptr);
}

// Shutdown drops modules newest first (later modules may use earlier ones), without exit().
TEST(BrokerTest, RemoveAllModulesDropsNewestFirst) {
  std::vector<std::string> ends;
  Broker broker = OX::OXBroker::createBroker("test", {});
  for (const char* name : {"First", "Second"}) {
    boost::shared_ptr<Probe>(new Probe(broker, name, &ends))->initModule();
  }
  broker->removeAllModules();
  EXPECT_TRUE(broker->getModuleNames().empty());
  EXPECT_EQ(ends, (std::vector<std::string>{"~Second", "~First"}));
}

// An event must reach each subscriber with [event, value, id], even after another one failed.
TEST(BrokerTest, MemoryDeliversEventsAndLogsFailedCallbacks) {
  Broker broker = OX::OXBroker::createBroker("test", {});
  OX::OXModule::createModule<Failing>(broker);
  boost::shared_ptr<Listener> listener = OX::OXModule::createModule<Listener>(broker);
  auto memory = broker->getSpecialisedProxy<OX::OXMemoryProxy>("OXMemory");
  ASSERT_NE(memory, nullptr);
  memory->subscribeToEvent("frame", "Failing", "onEvent");
  memory->subscribeToEvent("frame", "Listener", "onEvent");
  memory->subscribeToEvent("other", "Listener", "onEvent");

  vitest::LogCapture capture;
  memory->raiseEvent("frame", 42);
  EXPECT_EQ(listener->fEvents, (std::vector<OXValue>{args({"frame", 42, "Listener"})}));
  EXPECT_TRUE(capture.has(2, "framework.broker", "Failing.onEvent: callback broke"));
  EXPECT_TRUE(capture.has(3, "framework.memory",
                          "Event frame: callback Failing.onEvent failed: Method onEvent failed on "
                          "an internal error (logged by the host)"));
  EXPECT_EQ(capture.records().size(), 2u);

  memory->unsubscribeToEvent("frame", "Listener");
  memory->raiseEvent("frame", 1);
  EXPECT_EQ(listener->fEvents.size(), 1u);
  memory->insertData("key", args({1, "a"}));
  EXPECT_EQ(memory->getData("key"), args({1, "a"}));
  EXPECT_FALSE(memory->getData("none").isValid());
}

// Preferences come from the first directory holding the file; each defect is named in the error.
TEST(BrokerTest, PreferencesReadFilesAndNameEachDefect) {
  vitest::TempDir first;
  vitest::TempDir second;
  const auto file = [](const std::string& pEntries, const std::string& pRoot = "ModulePreference") {
    return "<?xml version=\"1.0\"?>\n<" + pRoot + " name=\"Camera\">\n" + pEntries + "</" + pRoot +
           ">\n";
  };
  second.write("Camera.xml",
               file("<Preference name=\"Name\" description=\"the name\" value=\"cam\"/>\n"
                    "<Preference name=\"Count\" value=\"12\" type=\"int\"/>\n"
                    "<Preference name=\"Gain\" description=\"\" value=\"1.5\" type=\"float\"/>\n"
                    "<Preference name=\"On\" description=\"\" value=\"true\" type=\"bool\"/>\n"));
  Broker broker = OX::OXBroker::createBroker("test", {first.path(), second.path()});
  OX::OXPreferencesProxy preferences(broker);
  EXPECT_EQ(preferences.readPrefFile("Camera", true),
            args({args({"Name", "the name", "cam"}), args({"Count", "", 12}),
                  args({"Gain", "", 1.5f}), args({"On", "", true})}));
  EXPECT_EQ(failure([&] { preferences.readPrefFile("Camera", false); }),
            "Preference file Camera.xml not found in: " + first.path());
  first.write("Camera.xml", file("<Preference name=\"Name\" value=\"first\"/>\n"));
  EXPECT_EQ(preferences.readPrefFile("Camera", true), args({args({"Name", "", "first"})}));
  EXPECT_EQ(failure([&] { preferences.readPrefFile("Missing", true); }),
            "Preference file Missing.xml not found in: " + first.path() + ", " + second.path());

  const std::vector<std::pair<std::string, std::string>> defects = {
      {"<ModulePreference><Preference name=\"a\" value=\"b\">", "(line 1): "},
      {file("", "Preferences"), "(line 2): the root element must be <ModulePreference>"},
      {file("<Preference name=\"a\" description=\"d\"/>\n"),
       "(line 3): a <Preference> needs a name and a value"},
      {file("<Preference name=\"a\" value=\"twelve\" type=\"int\"/>\n"),
       "(line 3): \"twelve\" is no int"}};
  for (const auto& [text, why] : defects) {
    first.write("Bad.xml", text);
    const std::string description = failure([&] { preferences.readPrefFile("Bad", true); });
    const std::string expected = "Malformed preference file " + first.file("Bad.xml") + " " + why;
    EXPECT_EQ(description.substr(0, expected.size()), expected);
  }
}

// Calls from several threads on one module must neither lose calls nor race on the tables.
TEST(BrokerTest, ConcurrentCallsOnOneModule) {
  constexpr int kThreads = 3;
  constexpr int kCalls = 50;
  Broker broker = OX::OXBroker::createBroker("test", {});
  OX::OXModule::createModule<Listener>(broker);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([broker] {
      boost::shared_ptr<OX::OXProxy> proxy = broker->getProxy("Listener");
      for (int i = 0; i < kCalls; ++i) {
        proxy->genericCall("increment", OXValue());
        proxy->getMethodList();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(broker->getProxy("Listener")->genericCall("increment", OXValue()),
            OXValue(kThreads * kCalls + 1));
}

// A record split over lines, a handler left behind, or a clock ignoring the test hook misleads.
TEST(KiTest, LogStreamsHandlersAndClock) {
  vitest::LogCapture capture;
  {
    ki::log::LogStream stream(4, "test.ki", "tests/test_broker", "here", 7);
    stream << "first line\nsecond " << 2 << '\n';
  }
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  const ki::log::Record& r = records[0];
  EXPECT_EQ(
      std::tie(r.message, r.level, r.category, r.file, r.function, r.line),
      std::make_tuple("first line\nsecond 2\n", 4, "test.ki", "tests/test_broker", "here", 7));

  int seen = 0;
  const int id = ki::log::addHandler([&seen](const ki::log::Record&) { ++seen; });
  ki::log::log(6, "test", "one", "", "", 0);
  ki::log::removeHandler(id);
  ki::log::log(6, "test", "two", "", "", 0);
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(capture.count("two"), 1);

  ki::os::setClockForTesting([] { return int64_t(1700000000123456); });
  ki::os::timeval now{};
  ki::os::gettimeofday(&now);
  EXPECT_EQ(now.tv_sec, 1700000000);
  EXPECT_EQ(now.tv_usec, 123456);
  EXPECT_EQ(ki::os::nowMicroseconds(), 1700000000123456);
  ki::os::restoreRealClock();
  EXPECT_GT(ki::os::nowMicroseconds(), int64_t(1700000000123456));
}

// The owner of a handler frees what it captures right after removeHandler (LogCapture does): a
// record being delivered on another thread must not reach the handler after that.
TEST(KiTest, RemovedHandlerIsNotCalledAfterRemoveHandlerReturns) {
  vitest::LogCapture silence;
  auto entered = std::make_shared<std::promise<void>>();
  std::future<void> enteredFuture = entered->get_future();
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  auto removed = std::make_shared<std::atomic<bool>>(false);
  auto lateCall = std::make_shared<std::atomic<bool>>(false);
  // Handlers run in order of their ids: this one holds the delivery until it is released.
  const int blocker = ki::log::addHandler([entered, released](const ki::log::Record& pRecord) {
    if (pRecord.category != "test.removal") return;
    entered->set_value();
    released.wait();
  });
  const int target = ki::log::addHandler([removed, lateCall](const ki::log::Record& pRecord) {
    if (pRecord.category == "test.removal" && removed->load()) lateCall->store(true);
  });
  std::thread logging([] { ki::log::log(6, "test.removal", "record", "", "", 0); });
  enteredFuture.wait();
  std::thread removing([removed, target] {
    ki::log::removeHandler(target);
    removed->store(true);
  });
  // A removeHandler that waits for deliveries in progress returns only after the release.
  for (int i = 0; i < 50 && !removed->load(); ++i) std::this_thread::sleep_for(1ms);
  release.set_value();
  logging.join();
  removing.join();
  ki::log::removeHandler(blocker);
  EXPECT_FALSE(lateCall->load());
}

}  // namespace
