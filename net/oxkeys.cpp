// CURVE keys in files; see oxkeys.h.
#include "oxkeys.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "oxerror.h"

namespace OX {

namespace {

namespace fs = boost::filesystem;

const char* const kKeysFile = "net/oxkeys";
constexpr std::size_t kZ85KeySize = 40;
// A key file is a few lines: a larger one is not a key file.
constexpr std::uintmax_t kMaxKeyFileBytes = 4096;

OXError keyError(const std::string& pFunction, const std::string& pDescription) {
  return OXError("OXKeys", pFunction, pDescription, kKeysFile, 0);
}

bool isZ85Key(const std::string& pText) {
  unsigned char decoded[32];
  return pText.size() == kZ85KeySize && zmq_z85_decode(decoded, pText.c_str()) != nullptr;
}

// Creates pPath with pText, failing if it exists; the mode is set at creation, so that a secret
// is never readable by others, not even for a moment.
void writeNewFile(const std::string& pPath, const std::string& pText, mode_t pMode) {
  const int fd = ::open(pPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, pMode);
  if (fd < 0) {
    throw keyError("writeCurveKeyPair",
                   "cannot create " + pPath + ": " + std::strerror(errno) +
                       (errno == EEXIST ? " (a key is never replaced: remove it first)" : ""));
  }
  const bool written =
      ::write(fd, pText.data(), pText.size()) == static_cast<ssize_t>(pText.size());
  const bool closed = ::close(fd) == 0;
  if (!written || !closed) {
    ::unlink(pPath.c_str());
    throw keyError("writeCurveKeyPair", "cannot write " + pPath);
  }
}

}  // namespace

CurveKeyPair makeCurveKeyPair() {
  char publicKey[kZ85KeySize + 1];
  char secretKey[kZ85KeySize + 1];
  if (zmq_curve_keypair(publicKey, secretKey) != 0) {
    throw keyError("makeCurveKeyPair",
                   std::string("this ZeroMQ cannot make CURVE keys: ") + zmq_strerror(zmq_errno()));
  }
  return {publicKey, secretKey};
}

void writeCurveKeyPair(const std::string& pDirectory, const std::string& pName,
                       const CurveKeyPair& pKeys) {
  boost::system::error_code error;
  fs::create_directories(pDirectory, error);
  if (error) {
    throw keyError("writeCurveKeyPair", "cannot make " + pDirectory + ": " + error.message());
  }
  const std::string base = (fs::path(pDirectory) / pName).string();
  const std::string secretPath = base + ".key";
  const std::string publicPath = base + ".pub";
  // Checked first, so that a refusal leaves no half pair behind.
  for (const std::string& path : {secretPath, publicPath}) {
    if (fs::exists(fs::symlink_status(path, error))) {
      throw keyError("writeCurveKeyPair",
                     path + " exists (a key is never replaced: remove it first)");
    }
  }
  writeNewFile(
      secretPath,
      "# CURVE secret key \"" + pName + "\" (oxkeygen): keep it private\n" + pKeys.fSecret + "\n",
      0600);
  try {
    writeNewFile(publicPath,
                 "# CURVE public key \"" + pName + "\" (oxkeygen): give it to the other side\n" +
                     pKeys.fPublic + "\n",
                 0644);
  } catch (const OXError&) {
    ::unlink(secretPath.c_str());
    throw;
  }
}

std::string readCurveKey(const std::string& pPath) {
  boost::system::error_code error;
  const std::uintmax_t size = fs::file_size(pPath, error);
  if (error)
    throw keyError("readCurveKey", "cannot read the key " + pPath + ": " + error.message());
  if (size > kMaxKeyFileBytes) {
    throw keyError("readCurveKey", pPath + " is no key file: it is too large");
  }
  std::ifstream in(pPath);
  std::string line;
  std::string key;
  while (std::getline(in, line)) {
    line.erase(std::find_if(line.rbegin(), line.rend(),
                            [](char c) { return !std::isspace(static_cast<unsigned char>(c)); })
                   .base(),
               line.end());
    if (line.empty() || line[0] == '#') continue;
    if (!key.empty() || !isZ85Key(line)) {
      throw keyError("readCurveKey", pPath +
                                         " is no key file: expected comment lines ('#') and "
                                         "one key of 40 Z85 characters (made by oxkeygen)");
    }
    key = line;
  }
  if (key.empty()) throw keyError("readCurveKey", pPath + " holds no key");
  return key;
}

std::string curvePublicKey(const std::string& pSecret) {
  char publicKey[kZ85KeySize + 1];
  if (!isZ85Key(pSecret) || zmq_curve_public(publicKey, pSecret.c_str()) != 0) {
    throw keyError("curvePublicKey", "malformed secret key");
  }
  return publicKey;
}

std::vector<std::string> readAllowedKeys(const std::string& pDirectory) {
  boost::system::error_code error;
  std::vector<std::string> files;
  for (fs::directory_iterator it(pDirectory, error), end; !error && it != end;
       it.increment(error)) {
    if (it->path().extension() == ".pub") files.push_back(it->path().string());
  }
  if (error) {
    throw keyError("readAllowedKeys",
                   "cannot read the allowed keys in " + pDirectory + ": " + error.message());
  }
  std::sort(files.begin(), files.end());
  std::vector<std::string> keys;
  for (const std::string& file : files) keys.push_back(readCurveKey(file));
  return keys;
}

}  // namespace OX
