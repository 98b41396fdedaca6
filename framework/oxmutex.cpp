// Locks and scoped holders.
#include "oxmutex.h"

#include <algorithm>

namespace OX {

boost::shared_ptr<OXMutex> OXMutex::createOXMutex() {
  return boost::shared_ptr<OXMutex>(new OXMutex());
}

boost::shared_ptr<OXMutexRW> OXMutexRW::createOXMutexRW() {
  return boost::shared_ptr<OXMutexRW>(new OXMutexRW());
}

int OXMutexRW::readCountOf(std::thread::id pThread) const {
  for (const Reader& reader : fReaders) {
    if (reader.fThread == pThread) return reader.fCount;
  }
  return 0;
}

void OXMutexRW::lockRead() {
  const std::thread::id self = std::this_thread::get_id();
  std::unique_lock<std::mutex> guard(fMutex);
  // The writer itself, or a thread already reading, goes in at once: waiting would deadlock.
  if (fWriter != self && readCountOf(self) == 0) {
    const std::uint64_t ticket = fNextTicket++;
    fChanged.wait(guard, [&] { return fServing == ticket && fWriteDepth == 0; });
    // The next in line goes in too if it is a reader: readers share the lock.
    ++fServing;
    fChanged.notify_all();
  }
  auto found = std::find_if(fReaders.begin(), fReaders.end(),
                            [&](const Reader& pReader) { return pReader.fThread == self; });
  if (found == fReaders.end()) {
    fReaders.push_back({self, 1});
  } else {
    ++found->fCount;
  }
  ++fReaderTotal;
}

void OXMutexRW::unlockRead() {
  const std::thread::id self = std::this_thread::get_id();
  std::lock_guard<std::mutex> guard(fMutex);
  auto found = std::find_if(fReaders.begin(), fReaders.end(),
                            [&](const Reader& pReader) { return pReader.fThread == self; });
  if (found == fReaders.end()) return;  // not held by this thread: nothing to give up
  if (--found->fCount == 0) fReaders.erase(found);
  --fReaderTotal;
  fChanged.notify_all();
}

void OXMutexRW::lockWrite() {
  const std::thread::id self = std::this_thread::get_id();
  std::unique_lock<std::mutex> guard(fMutex);
  if (fWriter == self) {
    ++fWriteDepth;
    return;
  }
  const int ownReads = readCountOf(self);
  if (ownReads > 0) {
    // A reader that asks for the write lock cannot wait in line: a writer ahead of it waits for
    // it to stop reading. It goes in once it is the last reader.
    fChanged.wait(guard, [&] { return fWriteDepth == 0 && fReaderTotal - ownReads == 0; });
  } else {
    const std::uint64_t ticket = fNextTicket++;
    fChanged.wait(guard,
                  [&] { return fServing == ticket && fWriteDepth == 0 && fReaderTotal == 0; });
    ++fServing;
  }
  fWriter = self;
  fWriteDepth = 1;
}

int OXMutexRW::waiting() const {
  std::lock_guard<std::mutex> guard(fMutex);
  return static_cast<int>(fNextTicket - fServing);
}

void OXMutexRW::unlockWrite() {
  std::lock_guard<std::mutex> guard(fMutex);
  if (fWriter != std::this_thread::get_id() || fWriteDepth == 0) return;
  if (--fWriteDepth == 0) {
    fWriter = std::thread::id();
    fChanged.notify_all();
  }
}

OXCriticalSection::OXCriticalSection(boost::shared_ptr<OXMutex> pMutex)
    : fMutex(std::move(pMutex)) {
  fMutex->lock();
}
OXCriticalSection::~OXCriticalSection() {
  fMutex->unlock();
}

OXCriticalSectionRead::OXCriticalSectionRead(boost::shared_ptr<OXMutexRW> pMutex)
    : fMutex(std::move(pMutex)) {
  fMutex->lockRead();
}
OXCriticalSectionRead::~OXCriticalSectionRead() {
  fMutex->unlockRead();
}

OXCriticalSectionWrite::OXCriticalSectionWrite(boost::shared_ptr<OXMutexRW> pMutex)
    : fMutex(std::move(pMutex)) {
  fMutex->lockWrite();
}
OXCriticalSectionWrite::~OXCriticalSectionWrite() {
  fMutex->unlockWrite();
}

}  // namespace OX
