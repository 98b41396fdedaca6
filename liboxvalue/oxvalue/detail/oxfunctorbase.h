// OXFunctorBase: a bound method with its types erased, as the method table keeps it.
#pragma once

#include "oxvalue.h"

namespace OX {

class OXFunctorBase {
 public:
  virtual ~OXFunctorBase() = default;
  // Unpacks pParams (an array), converts each element to its argument's type, calls the bound
  // member function and stores its result in pResult (left as it was for a void result).
  virtual void call(const OXValue& pParams, OXValue& pResult) = 0;
};

}  // namespace OX
