// OXMethodInfo: the record of one publication in a module's method table.
#pragma once

#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

#include "oxvalue/detail/oxfunctorbase.h"

namespace OX {

struct OXMethodInfo {
  struct Param {
    std::string name;
    std::string description;
    std::string type;  // filled by completeAndCheck
  };
  struct Example {
    std::string language;
    std::string text;
  };
  enum Binding { kNotBound = 0, kBindMethod = 1, kBindMethodOverload = 2 };
  // The flag of a publication that deals in pointers valid in the broker's process only (or
  // releases what such a publication gave): a caller in another process is refused it.
  static constexpr int kSameProcessOnly = 4;

  std::string name;
  std::string className;
  std::string description;
  int flags = 0;
  std::vector<Param> parameters;
  std::string returnName;
  std::string returnDescription;
  std::string returnType;  // filled by completeAndCheck
  std::vector<Example> examples;
  // Number of arguments of the bound function and their type codes (completeAndCheck).
  int arity = 0;
  std::vector<int> argumentTypes;
  Binding binding = kNotBound;
  boost::shared_ptr<OXFunctorBase> functor;
};

}  // namespace OX
