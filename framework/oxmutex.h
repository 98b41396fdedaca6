// Locks: OXMutex, the re-entrant reader-writer OXMutexRW, and the three scoped holders.
#pragma once

#include <boost/shared_ptr.hpp>
#include <condition_variable>
#include <cstdint>
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
// - everyone else takes it in the order of arrival, consecutive readers together: a writer is
//   never starved by readers, and a thread waits for those that came before it only, never for
//   a stream of later writers (a caller waits at most for the holds that were asked before its
//   own, however busy another client keeps the device);
// - a thread that holds only read locks and asks for the write lock waits until it is the last
//   reader, ahead of the line (two threads doing so at once would wait on each other: nothing
//   here does that).
class OXMutexRW {
 public:
  static boost::shared_ptr<OXMutexRW> createOXMutexRW();
  void lockRead();
  void unlockRead();
  void lockWrite();
  void unlockWrite();
  // Threads waiting in line (for diagnostics and tests).
  int waiting() const;

 private:
  OXMutexRW() = default;
  struct Reader {
    std::thread::id fThread;
    int fCount;
  };
  int readCountOf(std::thread::id pThread) const;  // fMutex held

  mutable std::mutex fMutex;
  std::condition_variable fChanged;
  std::thread::id fWriter;  // default id: no writer
  int fWriteDepth = 0;
  std::uint64_t fNextTicket = 0;  // the place in line of the next thread to ask
  std::uint64_t fServing = 0;     // the place in line whose turn it is
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
