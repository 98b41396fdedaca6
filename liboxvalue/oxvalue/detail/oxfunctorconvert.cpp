// converter<T>::convertFromOXValue for the argument types of published methods.
#include "oxvalue/detail/oxfunctorconvert.h"

#include "oxerror.h"

namespace OX {
namespace detail {
namespace {

const char* const kConvertFile = "liboxvalue/oxvalue/detail/oxfunctorconvert";

[[noreturn]] void refuse(const OXValue& pValue, const char* pWanted, int pLine) {
  throw OXError(
      "convertFromOXValue", "convertFromOXValue",
      std::string("Parameter type is ") + OXValue::TypeToString(pValue.getType()) + pWanted,
      kConvertFile, pLine);
}

}  // namespace

std::string converter<std::string>::convertFromOXValue(const OXValue& pValue) {
  if (!pValue.isString()) refuse(pValue, " instead of string", __LINE__);
  return pValue.asString();
}

int converter<int>::convertFromOXValue(const OXValue& pValue) {
  if (!pValue.isInt()) refuse(pValue, " instead of int", __LINE__);
  return pValue.asInt();
}

bool converter<bool>::convertFromOXValue(const OXValue& pValue) {
  if (!pValue.isBool() && !pValue.isInt()) refuse(pValue, " instead of bool", __LINE__);
  return pValue.asBool();
}

float converter<float>::convertFromOXValue(const OXValue& pValue) {
  if (!pValue.isFloat() && !pValue.isInt()) refuse(pValue, " instead of float", __LINE__);
  return pValue.asFloat();
}

std::vector<float> converter<std::vector<float>>::convertFromOXValue(const OXValue& pValue) {
  if (!pValue.isArray()) refuse(pValue, " instead of vector", __LINE__);
  std::vector<float> result;
  if (!pValue.ToFloatArray(result)) {
    // An array with an element that is no number: report the first offending element's kind.
    for (int i = 0; i < pValue.getSize(); ++i) {
      if (!pValue[i].isFloat() && !pValue[i].isInt())
        refuse(pValue[i], " instead of float", __LINE__);
    }
  }
  return result;
}

}  // namespace detail
}  // namespace OX
