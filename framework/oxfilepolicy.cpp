// The file policy of a broker; see oxfilepolicy.h.
#include "oxfilepolicy.h"

#include <algorithm>
#include <boost/filesystem.hpp>
#include <vector>

#include "kilog.h"
#include "oxbroker.h"
#include "oxcaller.h"
#include "oxerror.h"

namespace OX {

namespace {

namespace fs = boost::filesystem;

const char* const kPolicyFile = "framework/oxfilepolicy";
const char* const kCategory = "framework.filepolicy";

// The components of an absolute path, "." left out (a trailing slash normalises to one).
std::vector<fs::path> componentsOf(const fs::path& pPath) {
  std::vector<fs::path> parts;
  for (const fs::path& part : pPath) {
    if (part != ".") parts.push_back(part);
  }
  return parts;
}

// Whether pPath is pRoot or lies below it; both absolute and normal.
bool isInside(const fs::path& pPath, const fs::path& pRoot) {
  const std::vector<fs::path> path = componentsOf(pPath);
  const std::vector<fs::path> root = componentsOf(pRoot);
  return path.size() >= root.size() && std::equal(root.begin(), root.end(), path.begin());
}

}  // namespace

OXFilePolicy::OXFilePolicy(const std::string& pDirectory)
    : fDirectory(fs::absolute(pDirectory).lexically_normal().string()) {}

std::string OXFilePolicy::resolve(const std::string& pPath, Access pAccess,
                                  const std::string& pModule, const std::string& pFunction) const {
  const auto refuse = [&](const std::string& pWhy) {
    ki::log::LogStream(ki::log::kLogWarning, kCategory, "", "resolve", 0)
        << pModule << "." << pFunction << " of a remote caller refused: " << pWhy;
    return OXError(pModule, pFunction, pWhy, kPolicyFile, __LINE__);
  };
  // A NUL would end the path early where the system reads it.
  if (pPath.find('\0') != std::string::npos) throw refuse("the path holds a NUL character");
  const std::string quoted = "the path \"" + pPath + "\"";
  boost::system::error_code error;
  fs::create_directories(fDirectory, error);
  const fs::path root = fs::canonical(fDirectory, error);
  if (error) throw refuse("the data directory cannot be used: " + error.message());
  const fs::path requested(pPath);
  // Symbolic links are followed as far as the path exists; the rest is resolved by its words.
  const fs::path resolved =
      fs::weakly_canonical(requested.is_absolute() ? requested : root / requested, error)
          .lexically_normal();
  if (error) throw refuse(quoted + " cannot be resolved: " + error.message());
  if (!isInside(resolved, root)) throw refuse(quoted + " is outside the data directory");
  // A new file is looked at itself (a link is something that exists), a file to read through
  // its links.
  const fs::file_status status = pAccess == Access::kCreate ? fs::symlink_status(resolved, error)
                                                            : fs::status(resolved, error);
  if (status.type() == fs::file_not_found) return resolved.string();
  if (error) throw refuse(quoted + " cannot be examined: " + error.message());
  // A FIFO or a device would block or never end; a directory is no recording.
  if (status.type() != fs::regular_file) throw refuse(quoted + " is not a regular file");
  if (pAccess == Access::kCreate) {
    throw refuse(quoted + " names an existing file, which is never overwritten");
  }
  return resolved.string();
}

bool liesInside(const std::string& pPath, const std::string& pDirectory) {
  boost::system::error_code error;
  const fs::path path = fs::canonical(pPath, error);
  if (error) return false;
  const fs::path directory = fs::canonical(pDirectory, error);
  return !error && isInside(path, directory);
}

std::string resolveCallerPath(const OXModuleCore& pModule, const std::string& pPath,
                              OXFilePolicy::Access pAccess, const std::string& pFunction) {
  const OXFilePolicy* policy = currentFilePolicy();
  return policy == nullptr ? pPath : policy->resolve(pPath, pAccess, pModule.getName(), pFunction);
}

}  // namespace OX
