// Conversion of call arguments from OXValue, type codes of argument and result types, and the
// conversion of results back to OXValue.
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include "oxvalue.h"

namespace OX {
class OXImage;

namespace detail {

// Type codes as getTypeString names them.
template <class T>
struct typeCode;
template <>
struct typeCode<void> : std::integral_constant<int, 1> {};
template <>
struct typeCode<bool> : std::integral_constant<int, 2> {};
template <>
struct typeCode<int> : std::integral_constant<int, 3> {};
template <>
struct typeCode<float> : std::integral_constant<int, 4> {};
template <>
struct typeCode<std::string> : std::integral_constant<int, 5> {};
template <>
struct typeCode<OXValue> : std::integral_constant<int, 6> {};
template <>
struct typeCode<std::vector<float>> : std::integral_constant<int, 24> {};
template <>
struct typeCode<OXImage*> : std::integral_constant<int, 27> {};

// converter<T>::convertFromOXValue: checks the kind, then reads the value. A value of a kind
// that the table does not accept raises OXError("convertFromOXValue", "convertFromOXValue",
// "Parameter type is <kind> instead of <T>", ...). Nothing is logged.
template <class T>
struct converter;
template <>
struct converter<std::string> {
  static std::string convertFromOXValue(const OXValue& pValue);
};
template <>
struct converter<int> {
  static int convertFromOXValue(const OXValue& pValue);
};
template <>
struct converter<bool> {
  static bool convertFromOXValue(const OXValue& pValue);
};
template <>
struct converter<float> {
  static float convertFromOXValue(const OXValue& pValue);
};
template <>
struct converter<std::vector<float>> {
  static std::vector<float> convertFromOXValue(const OXValue& pValue);
};

// The argument of position pIndex as the function wants it; OXValue arguments are copied as
// they stand.
template <class T>
T convertArgument(const OXValue& pParams, int pIndex) {
  if constexpr (std::is_same_v<T, OXValue>) {
    return pParams[pIndex];
  } else {
    return converter<T>::convertFromOXValue(pParams[pIndex]);
  }
}

// How a result travels back. An image pointer is meaningful only in the caller's process, so it
// is dropped and the result is an invalid value.
template <class R>
void storeResult(R&& pResult, OXValue& pOut) {
  using D = std::decay_t<R>;
  if constexpr (std::is_same_v<D, OXImage*>) {
    (void)pResult;
    pOut = OXValue();
  } else {
    static_assert(typeCode<D>::value > 1, "unsupported result type");
    pOut = OXValue(std::forward<R>(pResult));
  }
}

}  // namespace detail
}  // namespace OX
