// Shared helpers of the tests: log capture, temporary directories, the test clock.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kilog.h"
#include "oxerror.h"

namespace vitest {

// Captures every log record while it lives and silences stderr meanwhile.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<ki::log::Record> records() const;
  // Records whose message equals pMessage exactly.
  int count(const std::string& pMessage) const;
  // Records of this level.
  int countLevel(int pLevel) const;
  // True when some record has this level, category and exact message.
  bool has(int pLevel, const std::string& pCategory, const std::string& pMessage) const;
  void clear();

 private:
  mutable std::mutex fMutex;
  std::vector<ki::log::Record> fRecords;
  int fHandlerId;
  int fOldThreshold;
};

// A fresh directory under the system's temporary directory, removed with its content at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return fPath; }
  std::string file(const std::string& pName) const { return fPath + "/" + pName; }
  void write(const std::string& pName, const std::string& pContent) const;

 private:
  std::string fPath;
};

// Replaces the framework clock by a counter that tests move by hand; sleeps advance it too.
class TestClock {
 public:
  explicit TestClock(int64_t pStart = 1700000000000000);
  ~TestClock();
  void advance(int64_t pMicroseconds) { fNow += pMicroseconds; }
  int64_t now() const { return fNow.load(); }

 private:
  std::atomic<int64_t> fNow;
};

// Runs pCall, which must raise OXError, and returns the error (a test failure when none came).
template <class F>
OX::OXError raised(F pCall) {
  try {
    pCall();
  } catch (const OX::OXError& error) {
    return error;
  }
  ADD_FAILURE() << "no OXError raised";
  return OX::OXError("", "", "", "", 0);
}

// Asks pCondition every few milliseconds until it holds or pMilliseconds have passed; its last
// answer.
template <class F>
bool pollUntil(F pCondition, int pMilliseconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(pMilliseconds);
  while (!pCondition()) {
    if (std::chrono::steady_clock::now() >= end) return pCondition();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// Path of a library or program of the build.
std::string libraryPath(const std::string& pName);

// Deterministic pseudo-random bytes (xorshift), different for each seed.
inline std::vector<unsigned char> randomBytes(size_t pSize, uint32_t pSeed) {
  std::vector<unsigned char> bytes(pSize);
  uint32_t state = pSeed * 2654435761u + 1u;
  for (unsigned char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<unsigned char>(state >> 24);
  }
  return bytes;
}

}  // namespace vitest
