// Locks: OXMutex, the re-entrant reader-writer OXMutexRW, and the three scoped holders.
#pragma once

#include <boost/shared_ptr.hpp>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace OX {

// A plain mutual exclusion lock (not re-entrant).
class OXMutex {
 public:
  static boost::shared_ptr<OXMutex> createOXMutex();
  void lock() { fMutex.lock(); }
  void unlock() { fMutex.unlock(); }
  bool tryLock() { return fMutex.try_lock(); }

 private:
  OXMutex() = default;
  std::mutex fMutex;
};

// A reader-writer lock with these re-entrance rules:
// - the thread that holds the write lock may take it again, and may also take the read lock;
// - a thread that holds a read lock may take it again, even while a writer waits;
// - new readers otherwise wait behind a waiting writer, so that writers are not starved;
// - a thread that holds only read locks and asks for the write lock waits until it is the last
//   reader (two threads doing so at once would wait on each other: nothing here does that).
class OXMutexRW {
 public:
  static boost::shared_ptr<OXMutexRW> createOXMutexRW();
  void lockRead();
  void unlockRead();
  void lockWrite();
  void unlockWrite();

 private:
  OXMutexRW() = default;
  struct Reader {
    std::thread::id fThread;
    int fCount;
  };
  int readCountOf(std::thread::id pThread) const;  // fMutex held

  std::mutex fMutex;
  std::condition_variable fChanged;
  std::thread::id fWriter;  // default id: no writer
  int fWriteDepth = 0;
  int fWritersWaiting = 0;
  int fReaderTotal = 0;
  std::vector<Reader> fReaders;
};

// Scoped holders: take the lock in the constructor, give it up in the destructor.
class OXCriticalSection {
 public:
  explicit OXCriticalSection(boost::shared_ptr<OXMutex> pMutex);
  ~OXCriticalSection();
  OXCriticalSection(const OXCriticalSection&) = delete;
  OXCriticalSection& operator=(const OXCriticalSection&) = delete;

 private:
  boost::shared_ptr<OXMutex> fMutex;
};

class OXCriticalSectionRead {
 public:
  explicit OXCriticalSectionRead(boost::shared_ptr<OXMutexRW> pMutex);
  ~OXCriticalSectionRead();
  OXCriticalSectionRead(const OXCriticalSectionRead&) = delete;
  OXCriticalSectionRead& operator=(const OXCriticalSectionRead&) = delete;

 private:
  boost::shared_ptr<OXMutexRW> fMutex;
};

class OXCriticalSectionWrite {
 public:
  explicit OXCriticalSectionWrite(boost::shared_ptr<OXMutexRW> pMutex);
  ~OXCriticalSectionWrite();
  OXCriticalSectionWrite(const OXCriticalSectionWrite&) = delete;
  OXCriticalSectionWrite& operator=(const OXCriticalSectionWrite&) = delete;

 private:
  boost::shared_ptr<OXMutexRW> fMutex;
};

}  // namespace OX
