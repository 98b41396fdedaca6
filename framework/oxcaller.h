// Who the running call is for. A thread that serves a call of another process marks it for the
// call's duration, so that the framework and the modules can hold such a caller to the rules for
// callers outside the broker's process: no publications meant for the broker's process (their
// results are pointers valid there only), and files only where the broker's file policy lets
// them be (oxfilepolicy.h). A call that the broker's own modules make while serving it counts as
// the remote caller's too.
#pragma once

#include <boost/shared_ptr.hpp>

namespace OX {

class OXFilePolicy;

// Marks the calling thread as serving a remote caller, under pPolicy (null: none), until the
// scope ends. Scopes nest; the innermost one's policy counts.
class OXRemoteCallScope {
 public:
  explicit OXRemoteCallScope(boost::shared_ptr<const OXFilePolicy> pPolicy);
  ~OXRemoteCallScope();
  OXRemoteCallScope(const OXRemoteCallScope&) = delete;
  OXRemoteCallScope& operator=(const OXRemoteCallScope&) = delete;

 private:
  boost::shared_ptr<const OXFilePolicy> fPolicy;  // alive while its scope is
  const OXFilePolicy* fOuterPolicy;
};

// True while the calling thread serves a call of another process.
bool isRemoteCall();
// The file policy of that call; null outside a remote call or when its broker has none.
const OXFilePolicy* currentFilePolicy();

}  // namespace OX
