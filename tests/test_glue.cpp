// The call glue, through a proxy: descriptions, argument conversion, overloads and errors.
#include <gtest/gtest.h>

#include <numeric>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "oxbroker.h"
#include "oximage.h"
#include "oxtypes.h"
#include "oxvalue/detail/oxfunctor.h"
#include "testsupport.h"

namespace {

using OX::OXValue;

OXValue args(std::initializer_list<OXValue> pValues) {
  return OXValue::array(pValues);
}

class GlueModule : public OX::OXModule {
 public:
  explicit GlueModule(boost::shared_ptr<OX::OXBroker> pBroker)
      : OXModule(pBroker, "Glue"), fImage(2, 2, OX::kYuv, false) {
    publish("takeInt", &GlueModule::takeInt, {"value"});
    publish("takeBool", &GlueModule::takeBool, {"value"});
    publish("takeFloat", &GlueModule::takeFloat, {"value"});
    publish("takeString", &GlueModule::takeString, {"value"});
    publish("sum", &GlueModule::sum, {"values"});
    publish("echo", &GlueModule::echo, {"value"});
    publish("nothing", &GlueModule::nothing, {});
    publish("image", &GlueModule::image, {});
    publish("pair", &GlueModule::pair, {"first"});
    publish("described", &GlueModule::takeInt, {"a", "b", "c"});
    publish("kind", &GlueModule::kindOfInt, {"value"});
    publish("kind", &GlueModule::kindOfString, {"value"}, true);
    publish("add", &GlueModule::add2, {"a", "b"});
    publish("add", &GlueModule::add3, {"a", "b", "c"}, true);
    publish("version", &GlueModule::first, {});
    publish("version", &GlueModule::second, {}, true);
    publish("fail", &GlueModule::fail, {});
    publish("speak", &GlueModule::speak, {});
  }

  template <class M>
  void publish(const std::string& pName, M pMethod, std::vector<std::string> pParams,
               bool pOverload = false) {
    functionName(pName, "GlueModule", "Does " + pName + ".", 0);
    for (const std::string& param : pParams) addParam(param, "The " + param + ".");
    setReturn("result", "What " + pName + " gives.");
    addMethodExample("python", "glue." + pName + "()");
    OX::detail::completeAndCheck(pMethod, getCurrentMethodDescription());
    if (pOverload) {
      bindMethodOverload(OX::detail::createFunctor(this, pMethod));
    } else {
      bindMethod(OX::detail::createFunctor(this, pMethod));
    }
  }

  int takeInt(int pValue) {
    ++fEntered;
    return pValue + 1;
  }
  bool takeBool(bool pValue) { return !pValue; }
  float takeFloat(float pValue) { return pValue * 2; }
  std::string takeString(const std::string& pValue) { return pValue + "!"; }
  float sum(const std::vector<float>& pValues) {
    return std::accumulate(pValues.begin(), pValues.end(), 0.0f);
  }
  OXValue echo(const OXValue& pValue) { return pValue; }
  void nothing() { ++fEntered; }
  OX::OXImage* image() { return &fImage; }
  int pair(int pFirst, int pSecond) { return pFirst * 10 + pSecond; }
  std::string kindOfInt(int) { return "int"; }
  std::string kindOfString(const std::string&) { return "string"; }
  int add2(int pA, int pB) { return pA + pB; }
  int add3(int pA, int pB, int pC) { return pA + pB + pC; }
  int first() { return 1; }
  int second() { return 2; }
  void fail() { throw std::runtime_error("device unplugged"); }
  virtual std::string speak() { return "base"; }

  int fEntered = 0;
  OX::OXImage fImage;
};

// speak is bound by GlueModule: calls must still run this override.
struct DerivedGlue : GlueModule {
  using GlueModule::GlueModule;
  std::string speak() override { return "derived"; }
};

class GlueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fBroker = OX::OXBroker::createBroker("test", {});
    fModule = OX::OXModule::createModule<DerivedGlue>(fBroker);
    fProxy = fBroker->getProxy("Glue");
  }

  OXValue call(const std::string& pMethod, const OXValue& pArguments) {
    return fProxy->genericCall(pMethod, pArguments);
  }
  // The OXError that the call must raise, and its description.
  OX::OXError raised(const std::string& pMethod, const OXValue& pArguments) {
    return vitest::raised([&] { call(pMethod, pArguments); });
  }
  std::string failure(const std::string& pMethod, const OXValue& pArguments) {
    return raised(pMethod, pArguments).getDescription();
  }

  boost::shared_ptr<OX::OXBroker> fBroker;
  boost::shared_ptr<GlueModule> fModule;
  boost::shared_ptr<OX::OXProxy> fProxy;
};

// A wrong argument kind must be refused with a precise text before the method runs, while an int
// stays acceptable for bool and float.
TEST_F(GlueTest, ConvertsArgumentsOrRefusesThemBeforeTheCall) {
  const OX::OXError error = raised("takeInt", args({"12"}));
  EXPECT_EQ(std::make_tuple(error.getDescription(), error.getModuleName(), error.getFunctionName(),
                            error.getFileName()),
            std::make_tuple("Parameter type is string instead of int", "convertFromOXValue",
                            "convertFromOXValue", "liboxvalue/oxvalue/detail/oxfunctorconvert"));
  EXPECT_EQ(fModule->fEntered, 0);
  EXPECT_EQ(call("takeInt", args({12})), OXValue(13));
  EXPECT_EQ(fModule->fEntered, 1);

  EXPECT_EQ(call("takeBool", args({0})), OXValue(true));
  EXPECT_EQ(call("takeBool", args({true})), OXValue(false));
  EXPECT_EQ(call("takeFloat", args({3})), OXValue(6.0f));
  EXPECT_EQ(call("sum", args({args({1, 2.5f})})), OXValue(3.5f));
  EXPECT_EQ(call("takeString", args({"hi"})), OXValue("hi!"));

  EXPECT_EQ(failure("takeInt", args({1.5f})), "Parameter type is float instead of int");
  EXPECT_EQ(failure("takeInt", args({true})), "Parameter type is bool instead of int");
  EXPECT_EQ(failure("takeString", args({1})), "Parameter type is int instead of string");
  EXPECT_EQ(failure("takeBool", args({"yes"})), "Parameter type is string instead of bool");
  EXPECT_EQ(failure("takeFloat", args({"1"})), "Parameter type is string instead of float");
  EXPECT_EQ(failure("sum", args({1})), "Parameter type is int instead of vector");
  EXPECT_EQ(failure("sum", args({args({1, "x"})})), "Parameter type is string instead of float");

  // OXValue arguments pass as they stand, whatever their kind.
  for (const OXValue& value : {OXValue(), OXValue("s"), args({1, "a"}), OXValue::binary("ab", 2)}) {
    EXPECT_EQ(call("echo", args({value})), value) << value.toString();
  }
}

// Results: nothing stored for void, an image pointer never leaves the process.
TEST_F(GlueTest, StoresResultsByKind) {
  OXValue result = 7;
  OX::detail::createFunctor(fModule.get(), &GlueModule::nothing)->call(args({}), result);
  EXPECT_EQ(result, OXValue(7));
  EXPECT_EQ(fModule->fEntered, 1);
  EXPECT_FALSE(call("nothing", OXValue()).isValid());

  OX::detail::createFunctor(fModule.get(), &GlueModule::image)->call(args({}), result);
  EXPECT_FALSE(result.isValid());
  EXPECT_FALSE(call("image", args({})).isValid());
}

// The method table is what clients read to call a module: every field must be where documented.
TEST_F(GlueTest, CompletesDescriptionsAndPublishesHelp) {
  const std::vector<std::string> expectedNames = {
      "takeInt", "takeBool",  "takeFloat", "takeString", "sum",     "echo", "nothing", "image",
      "pair",    "described", "kind",      "add",        "version", "fail", "speak"};
  EXPECT_EQ(fProxy->getMethodList(), expectedNames);

  // Two arguments, one described: the second is named arg2 with an empty description.
  const OXValue help = fProxy->getMethodHelp("pair");
  ASSERT_EQ(help.getSize(), 1);
  const OXValue expected =
      args({"pair", "GlueModule", "Does pair.", 0,
            args({args({"first", "The first.", "int"}), args({"arg2", "", "int"})}),
            args({"result", "What pair gives.", "int"}), args({args({"python", "glue.pair()"})}),
            "bindMethod"});
  EXPECT_EQ(help[0], expected);
  EXPECT_EQ(call("pair", args({1, 2})), OXValue(12));

  // More parameters described than the function has: all kept, the extra ones without a type.
  const OXValue described = fProxy->getMethodHelp("described")[0][4];
  EXPECT_EQ(described, args({args({"a", "The a.", "int"}), args({"b", "The b.", ""}),
                             args({"c", "The c.", ""})}));
  EXPECT_EQ(call("described", args({1})), OXValue(2));

  using S = std::pair<std::string, std::string>;
  for (const auto& [method, type] :
       {S{"takeBool", "bool"}, S{"takeFloat", "float"}, S{"takeString", "string"},
        S{"echo", "OXValue"}, S{"sum", "std::vector<float>"}}) {
    const OXValue record = fProxy->getMethodHelp(method)[0];
    EXPECT_EQ(record[4][0][2], OXValue(type)) << method;
    EXPECT_EQ(record[5][2], OXValue(method == "sum" ? "float" : type)) << method;
  }
  EXPECT_EQ(fProxy->getMethodHelp("nothing")[0][5][2], OXValue("void"));
  EXPECT_EQ(fProxy->getMethodHelp("image")[0][5][2], OXValue("OXImage*"));

  const OXValue kinds = fProxy->getMethodHelp("kind");
  ASSERT_EQ(kinds.getSize(), 2);
  EXPECT_EQ(kinds[0][7], OXValue("bindMethod"));
  EXPECT_EQ(kinds[1][7], OXValue("bindMethodOverload"));
  EXPECT_EQ(kinds[1][4][0][2], OXValue("string"));
  const OXValue unknown = fProxy->getMethodHelp("missing");
  EXPECT_TRUE(unknown.isArray());
  EXPECT_EQ(unknown.getSize(), 0);
}

// Overloads are chosen by argument kind and count; an identical later publication replaces the
// earlier; calls that fit nothing, or methods that throw, surface as OXError, and a library's
// exception never shows the caller its own text.
TEST_F(GlueTest, ResolvesOverloadsAndReportsFailures) {
  EXPECT_EQ(call("kind", args({1})), OXValue("int"));
  EXPECT_EQ(call("kind", args({"a"})), OXValue("string"));
  EXPECT_EQ(call("add", args({1, 2})), OXValue(3));
  EXPECT_EQ(call("add", args({1, 2, 3})), OXValue(6));
  EXPECT_EQ(call("version", OXValue()), OXValue(2));
  EXPECT_EQ(call("speak", OXValue()), OXValue("derived"));  // a base binding runs the override

  EXPECT_EQ(failure("missing", args({})), "Method missing is not published by module Glue");
  EXPECT_EQ(failure("add", args({1})), "Method add takes 2, 3 argument(s), not 1");
  EXPECT_EQ(failure("takeInt", args({})), "Method takeInt takes 1 argument(s), not 0");
  EXPECT_THROW(call("takeInt", OXValue(1)), OX::OXError);

  vitest::LogCapture capture;
  const OX::OXError error = raised("fail", args({}));
  EXPECT_EQ(std::make_tuple(error.getDescription(), error.getModuleName(), error.getFunctionName()),
            std::make_tuple("Method fail failed on an internal error (logged by the host)", "Glue",
                            "fail"));
  EXPECT_TRUE(capture.has(2, "framework.broker", "Glue.fail: device unplugged"));
}

}  // namespace
