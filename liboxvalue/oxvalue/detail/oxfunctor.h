// The typed glue between a broker call (an OXValue array in, an OXValue out) and a member
// function: OXFunctor_0 to OXFunctor_5, createFunctor and completeAndCheck.
#pragma once

#include <boost/shared_ptr.hpp>
#include <tuple>
#include <type_traits>
#include <utility>

#include "oxmethodinfo.h"
#include "oxtypes.h"
#include "oxvalue/detail/oxfunctorbase.h"
#include "oxvalue/detail/oxfunctorconvert.h"

namespace OX {
namespace detail {

// A member function of C taking Args and returning R, bound to an object. IsConst says whether
// the member function is const. A virtual member function dispatches through the object, so a
// derived class's override runs.
template <bool IsConst, class C, class R, class... Args>
class OXFunctor : public OXFunctorBase {
 public:
  using Method = std::conditional_t<IsConst, R (C::*)(Args...) const, R (C::*)(Args...)>;

  OXFunctor(C* pObject, Method pMethod) : fObject(pObject), fMethod(pMethod) {}

  void call(const OXValue& pParams, OXValue& pResult) override {
    callWith(pParams, pResult, std::index_sequence_for<Args...>());
  }

 private:
  template <size_t... I>
  void callWith(const OXValue& pParams, OXValue& pResult, std::index_sequence<I...>) {
    // Braced initialisation converts the arguments in their order, the first one first.
    std::tuple<std::decay_t<Args>...> arguments{
        convertArgument<std::decay_t<Args>>(pParams, static_cast<int>(I))...};
    if constexpr (std::is_void_v<R>) {
      (fObject->*fMethod)(std::get<I>(arguments)...);
    } else {
      storeResult((fObject->*fMethod)(std::get<I>(arguments)...), pResult);
    }
  }

  C* fObject;
  Method fMethod;
};

// The functors by arity; the argument types come before the result type, as in the tables of
// the published methods.
template <class C, class R>
using OXFunctor_0 = OXFunctor<false, C, R>;
template <class C, class A1, class R>
using OXFunctor_1 = OXFunctor<false, C, R, A1>;
template <class C, class A1, class A2, class R>
using OXFunctor_2 = OXFunctor<false, C, R, A1, A2>;
template <class C, class A1, class A2, class A3, class R>
using OXFunctor_3 = OXFunctor<false, C, R, A1, A2, A3>;
template <class C, class A1, class A2, class A3, class A4, class R>
using OXFunctor_4 = OXFunctor<false, C, R, A1, A2, A3, A4>;
template <class C, class A1, class A2, class A3, class A4, class A5, class R>
using OXFunctor_5 = OXFunctor<false, C, R, A1, A2, A3, A4, A5>;

// createFunctor(object, &Class::method): the functor of that arity, on the heap. The object may
// be of a class derived from the one that declares the method.
template <class C, class Object, class R, class... Args>
boost::shared_ptr<OXFunctorBase> createFunctor(Object* pObject, R (C::*pMethod)(Args...)) {
  static_assert(sizeof...(Args) <= 5, "published methods take at most five arguments");
  return boost::shared_ptr<OXFunctorBase>(
      new OXFunctor<false, C, R, Args...>(static_cast<C*>(pObject), pMethod));
}

template <class C, class Object, class R, class... Args>
boost::shared_ptr<OXFunctorBase> createFunctor(Object* pObject, R (C::*pMethod)(Args...) const) {
  static_assert(sizeof...(Args) <= 5, "published methods take at most five arguments");
  return boost::shared_ptr<OXFunctorBase>(
      new OXFunctor<true, C, R, Args...>(static_cast<C*>(pObject), pMethod));
}

// Completes a method description from the signature: the return type, a parameter "argN" for
// each argument that the description lacks, and the type of every argument. A description with
// more parameters than the function has keeps them as they are.
template <class R, class... Args>
void completeSignature(OXMethodInfo& pInfo) {
  pInfo.returnType = getTypeString(typeCode<std::decay_t<R>>::value);
  const int arity = static_cast<int>(sizeof...(Args));
  const int described = static_cast<int>(pInfo.parameters.size());
  for (int k = described; k < arity; ++k) {
    pInfo.parameters.push_back({"arg" + std::to_string(k + 1), "", ""});
  }
  const int codes[] = {typeCode<std::decay_t<Args>>::value..., 0};
  pInfo.arity = arity;
  pInfo.argumentTypes.assign(codes, codes + arity);
  for (int k = 0; k < arity; ++k) pInfo.parameters[k].type = getTypeString(codes[k]);
}

template <class C, class R, class... Args>
void completeAndCheck(R (C::*)(Args...), OXMethodInfo& pInfo) {
  completeSignature<R, Args...>(pInfo);
}

template <class C, class R, class... Args>
void completeAndCheck(R (C::*)(Args...) const, OXMethodInfo& pInfo) {
  completeSignature<R, Args...>(pInfo);
}

}  // namespace detail
}  // namespace OX
