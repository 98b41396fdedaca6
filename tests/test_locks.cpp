// The re-entrant reader-writer lock and scoped holders. Blocking lock operations run on detached
// threads watched through futures, so that a deadlock fails the test instead of hanging it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "oxmutex.h"

namespace {

using namespace std::chrono_literals;
using Lock = boost::shared_ptr<OX::OXMutexRW>;

// Work on its own thread; it captures by value or shared pointer since it may outlive the test.
class Attempt {
 public:
  explicit Attempt(std::function<void()> pWork) {
    auto done = std::make_shared<std::promise<void>>();
    fDone = done->get_future();
    std::thread([work = std::move(pWork), done] {
      work();
      done->set_value();
    }).detach();
  }
  bool finishes() { return fDone.wait_for(2s) == std::future_status::ready; }
  // A short look: a correct lock never lets a blocked attempt through, whatever the timing.
  bool blocked() { return fDone.wait_for(5ms) == std::future_status::timeout; }

 private:
  std::future<void> fDone;
};

std::function<void()> takeWrite(Lock pLock) {
  return [pLock] { OX::OXCriticalSectionWrite hold(pLock); };
}
std::function<void()> takeRead(Lock pLock) {
  return [pLock] { OX::OXCriticalSectionRead hold(pLock); };
}

// False when the flag is still down after two seconds.
bool waitFor(const std::atomic<bool>& pFlag) {
  const auto deadline = std::chrono::steady_clock::now() + 2s;
  while (!pFlag.load()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// A re-entering write holder must not deadlock on itself, and must release at its last unlock.
TEST(OXMutexRWTest, WriteHolderTakesWriteAndReadAgain) {
  Lock lock = OX::OXMutexRW::createOXMutexRW();
  auto partly = std::make_shared<std::atomic<bool>>(false);
  auto release = std::make_shared<std::atomic<bool>>(false);
  Attempt holder([lock, partly, release] {
    for (int i = 0; i < 2; ++i) lock->lockWrite();
    for (int i = 0; i < 2; ++i) lock->lockRead();
    for (int i = 0; i < 2; ++i) lock->unlockRead();
    lock->unlockWrite();
    partly->store(true);
    waitFor(*release);
    lock->unlockWrite();
  });
  ASSERT_TRUE(waitFor(*partly));
  Attempt writer(takeWrite(lock));
  Attempt reader(takeRead(lock));
  EXPECT_TRUE(writer.blocked());
  EXPECT_TRUE(reader.blocked());
  release->store(true);
  EXPECT_TRUE(holder.finishes());
  EXPECT_TRUE(writer.finishes());
  EXPECT_TRUE(reader.finishes());
}

// A reader that reads again while a writer waits would deadlock if it queued behind the writer.
TEST(OXMutexRWTest, ReaderReentersWhileWriterWaits) {
  struct State {
    std::atomic<bool> reading{false};
    std::atomic<bool> writerStarted{false};
    std::atomic<bool> reentered{false};
    std::atomic<bool> writerCameAfterReader{false};
  };
  Lock lock = OX::OXMutexRW::createOXMutexRW();
  auto state = std::make_shared<State>();
  Attempt reader([lock, state] {
    lock->lockRead();
    state->reading.store(true);
    waitFor(state->writerStarted);
    std::this_thread::sleep_for(3ms);  // lets the writer reach its wait
    lock->lockRead();
    state->reentered.store(true);
    lock->unlockRead();
    lock->unlockRead();
  });
  ASSERT_TRUE(waitFor(state->reading));
  Attempt writer([lock, state] {
    state->writerStarted.store(true);
    lock->lockWrite();
    state->writerCameAfterReader.store(state->reentered.load());
    lock->unlockWrite();
  });
  EXPECT_TRUE(reader.finishes());
  EXPECT_TRUE(writer.finishes());
  EXPECT_TRUE(state->writerCameAfterReader.load());
}

// A later writer overtook a reader that was already waiting: one client that kept calling a slow
// method held every other client's device calls for as long as it kept calling.
TEST(OXMutexRWTest, LaterWriterDoesNotOvertakeAWaitingReader) {
  Lock lock = OX::OXMutexRW::createOXMutexRW();
  auto turns = std::make_shared<std::atomic<int>>(0);
  auto readerTurn = std::make_shared<std::atomic<int>>(0);
  auto writerTurn = std::make_shared<std::atomic<int>>(0);
  auto inLine = [&](int pCount) {
    const auto deadline = std::chrono::steady_clock::now() + 2s;
    while (lock->waiting() != pCount && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    return lock->waiting() == pCount;
  };
  lock->lockWrite();
  Attempt reader([lock, turns, readerTurn] {
    OX::OXCriticalSectionRead hold(lock);
    *readerTurn = ++*turns;
  });
  ASSERT_TRUE(inLine(1));
  Attempt writer([lock, turns, writerTurn] {
    OX::OXCriticalSectionWrite hold(lock);
    *writerTurn = ++*turns;
  });
  ASSERT_TRUE(inLine(2));
  lock->unlockWrite();
  EXPECT_TRUE(reader.finishes());
  EXPECT_TRUE(writer.finishes());
  EXPECT_EQ(readerTurn->load(), 1);
  EXPECT_EQ(writerTurn->load(), 2);
}

// Writers must exclude readers and each other: no lost increment and no torn read.
TEST(OXMutexRWTest, WritersExcludeReadersAndWriters) {
  struct State {
    int first = 0;
    int second = 0;
    std::atomic<int> torn{0};
  };
  constexpr int kWriters = 3;
  constexpr int kIterations = 200;
  Lock lock = OX::OXMutexRW::createOXMutexRW();
  auto state = std::make_shared<State>();
  std::vector<std::unique_ptr<Attempt>> attempts;
  for (int w = 0; w < kWriters; ++w) {
    attempts.push_back(std::make_unique<Attempt>([lock, state] {
      for (int i = 0; i < kIterations; ++i) {
        lock->lockWrite();
        ++state->first;
        if (i % 2 == 0) {  // nested write and read while holding the write lock
          lock->lockWrite();
          lock->lockRead();
          lock->unlockRead();
          lock->unlockWrite();
        }
        ++state->second;
        lock->unlockWrite();
      }
    }));
  }
  for (int r = 0; r < 2; ++r) {
    attempts.push_back(std::make_unique<Attempt>([lock, state] {
      for (int i = 0; i < kIterations; ++i) {
        lock->lockRead();
        if (state->first != state->second) ++state->torn;
        lock->unlockRead();
      }
    }));
  }
  for (auto& attempt : attempts) ASSERT_TRUE(attempt->finishes());
  lock->lockRead();
  EXPECT_EQ(std::make_pair(state->first, state->second),
            std::make_pair(kWriters * kIterations, kWriters * kIterations));
  lock->unlockRead();
  EXPECT_EQ(state->torn.load(), 0);
}

// A scoped holder that kept its lock after its scope, or after an exception, would block all.
// Each ASSERT guards the next lock taken on this thread.
TEST(OXMutexRWTest, ScopedHoldersReleaseOnScopeExitAndOnException) {
  Lock lock = OX::OXMutexRW::createOXMutexRW();
  std::unique_ptr<Attempt> waiting;
  {
    OX::OXCriticalSectionWrite write(lock);
    OX::OXCriticalSectionRead read(lock);
    waiting = std::make_unique<Attempt>(takeRead(lock));
    EXPECT_TRUE(waiting->blocked());
  }
  ASSERT_TRUE(waiting->finishes());
  try {
    OX::OXCriticalSectionRead read(lock);
    waiting = std::make_unique<Attempt>(takeWrite(lock));
    EXPECT_TRUE(waiting->blocked());
    throw std::runtime_error("leaving");
  } catch (const std::runtime_error&) {
  }
  ASSERT_TRUE(waiting->finishes());
  try {
    OX::OXCriticalSectionWrite write(lock);
    throw std::runtime_error("leaving");
  } catch (const std::runtime_error&) {
  }
  EXPECT_TRUE(Attempt(takeRead(lock)).finishes());

  boost::shared_ptr<OX::OXMutex> plain = OX::OXMutex::createOXMutex();
  auto free = std::make_shared<std::atomic<int>>(-1);
  auto tryLock = [plain, free] {
    const bool taken = plain->tryLock();
    if (taken) plain->unlock();
    free->store(taken ? 1 : 0);
  };
  {
    OX::OXCriticalSection hold(plain);
    ASSERT_TRUE(Attempt(tryLock).finishes());
    EXPECT_EQ(free->load(), 0);
  }
  ASSERT_TRUE(Attempt(tryLock).finishes());
  EXPECT_EQ(free->load(), 1);
}

}  // namespace
