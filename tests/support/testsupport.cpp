// Shared helpers of the tests.
#include "testsupport.h"

#include <boost/filesystem.hpp>
#include <fstream>

#include "kios.h"

namespace vitest {

LogCapture::LogCapture() : fOldThreshold(ki::log::getStderrThreshold()) {
  ki::log::setStderrThreshold(-1);
  fHandlerId = ki::log::addHandler([this](const ki::log::Record& pRecord) {
    std::lock_guard<std::mutex> guard(fMutex);
    fRecords.push_back(pRecord);
  });
}

LogCapture::~LogCapture() {
  ki::log::removeHandler(fHandlerId);
  ki::log::setStderrThreshold(fOldThreshold);
}

std::vector<ki::log::Record> LogCapture::records() const {
  std::lock_guard<std::mutex> guard(fMutex);
  return fRecords;
}

int LogCapture::count(const std::string& pMessage) const {
  std::lock_guard<std::mutex> guard(fMutex);
  int n = 0;
  for (const auto& record : fRecords) n += record.message == pMessage ? 1 : 0;
  return n;
}

int LogCapture::countLevel(int pLevel) const {
  std::lock_guard<std::mutex> guard(fMutex);
  int n = 0;
  for (const auto& record : fRecords) n += record.level == pLevel ? 1 : 0;
  return n;
}

bool LogCapture::has(int pLevel, const std::string& pCategory, const std::string& pMessage) const {
  std::lock_guard<std::mutex> guard(fMutex);
  for (const auto& record : fRecords) {
    if (record.level == pLevel && record.category == pCategory && record.message == pMessage) {
      return true;
    }
  }
  return false;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> guard(fMutex);
  fRecords.clear();
}

TempDir::TempDir() {
  const boost::filesystem::path path =
      boost::filesystem::temp_directory_path() /
      boost::filesystem::unique_path("videoinput-test-%%%%-%%%%-%%%%");
  boost::filesystem::create_directories(path);
  fPath = path.string();
}

TempDir::~TempDir() {
  boost::system::error_code ignored;
  boost::filesystem::remove_all(fPath, ignored);
}

void TempDir::write(const std::string& pName, const std::string& pContent) const {
  std::ofstream out(file(pName), std::ios::binary);
  out << pContent;
}

TestClock::TestClock(int64_t pStart) : fNow(pStart) {
  ki::os::setClockForTesting([this] { return fNow.load(); });
  ki::os::setSleepForTesting([this](unsigned int pMicroseconds) { fNow += pMicroseconds; });
}

TestClock::~TestClock() {
  ki::os::restoreRealClock();
  ki::os::restoreRealSleep();
}

std::string libraryPath(const std::string& pName) {
  return std::string(VI_LIBRARY_DIR) + "/" + pName;
}

}  // namespace vitest
