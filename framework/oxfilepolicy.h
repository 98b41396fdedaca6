// The file policy of a broker: where the files that remote callers name may be.
//
// A broker that serves other processes carries a policy (OXBroker::setFilePolicy); every path
// that reaches a module from a remote caller is then resolved inside the policy's data directory
// before anything is opened: an absolute path, "..", or a symbolic link that leads outside it is
// refused, as is anything that is not a regular file, and a new file never replaces an existing
// one. Callers in the broker's process, and brokers without a policy, open paths as they are.
#pragma once

#include <string>

namespace OX {

class OXFilePolicy {
 public:
  enum class Access {
    kRead,    // an existing regular file, or a missing one (the caller reports it as missing)
    kCreate,  // a new file: nothing may exist under that name
  };

  // pDirectory is taken relative to the current directory of this moment; it is created when a
  // path is first resolved in it.
  explicit OXFilePolicy(const std::string& pDirectory);

  // Absolute, as given (not resolved).
  const std::string& getDirectory() const { return fDirectory; }

  // pPath (relative to the data directory, or absolute) resolved to an absolute path without
  // symbolic links that lies inside the data directory. Throws OXError(pModule, pFunction, ...)
  // saying why when it does not, or when the file is not what pAccess needs. Thread-safe.
  std::string resolve(const std::string& pPath, Access pAccess, const std::string& pModule,
                      const std::string& pFunction) const;

 private:
  std::string fDirectory;
};

// Whether the file pPath, its symbolic links followed, lies inside pDirectory; false when either
// cannot be resolved.
bool liesInside(const std::string& pPath, const std::string& pDirectory);

class OXModuleCore;

// The path that the running call may open for pPath: under the file policy of the remote call
// that the calling thread serves (oxcaller.h), pPath resolved as above with pModule's name in
// the error; otherwise pPath unchanged. Modules call it first thing in an operation that opens a
// file that its caller names, so that a refusal changes nothing.
std::string resolveCallerPath(const OXModuleCore& pModule, const std::string& pPath,
                              OXFilePolicy::Access pAccess, const std::string& pFunction);

}  // namespace OX
