// The mark of a thread that serves a remote caller; see oxcaller.h.
#include "oxcaller.h"

#include "oxfilepolicy.h"

namespace OX {

namespace {

// Per thread: a mark never crosses to another thread, so it needs no lock.
thread_local int tRemoteDepth = 0;
thread_local const OXFilePolicy* tPolicy = nullptr;

}  // namespace

OXRemoteCallScope::OXRemoteCallScope(boost::shared_ptr<const OXFilePolicy> pPolicy)
    : fPolicy(std::move(pPolicy)), fOuterPolicy(tPolicy) {
  ++tRemoteDepth;
  tPolicy = fPolicy.get();
}

OXRemoteCallScope::~OXRemoteCallScope() {
  tPolicy = fOuterPolicy;
  --tRemoteDepth;
}

bool isRemoteCall() {
  return tRemoteDepth > 0;
}

const OXFilePolicy* currentFilePolicy() {
  return tPolicy;
}

}  // namespace OX
