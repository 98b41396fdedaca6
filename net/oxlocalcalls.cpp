// Calls of a same-host session over a Unix stream connection; see oxlocalcalls.h.
#include "oxlocalcalls.h"

#include <endian.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "kilog.h"
#include "oxerror.h"
#include "oxhostlog.h"
#include "oxrequests.h"
#include "oxsharedmemory.h"

namespace OX {
namespace net {

namespace {

using Clock = std::chrono::steady_clock;

const char* const kCallsFile = "net/oxlocalcalls";
// A visitor has this long to show its token once it is let in at the door; at most this many
// visitors at once, more wait in the socket's backlog.
constexpr int kDoorDeadlineMs = 1000;
constexpr std::size_t kDoorPending = 16;
// How often an idle connection looks whether its session still holds its area.
constexpr int kCheckMs = 200;
// How long a reply may still take to leave once the host stops.
constexpr int kLingerMs = 500;
// What one read asks of the system at least: a small request arrives in one read.
constexpr std::size_t kReadAhead = std::size_t(64) << 10;
// Buffers larger than this are given back after their message.
constexpr std::size_t kKeptBuffer = std::size_t(1) << 20;

enum class Wait { kReady, kTimedOut, kStopped, kFailed };

// Waits until pFd is ready for pEvents (or has failed: the next call says how), until pDeadline,
// or, with pStopFd, until the host stops.
Wait waitFor(int pFd, short pEvents, Clock::time_point pDeadline, int pStopFd) {
  while (true) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(pDeadline - Clock::now()).count();
    if (left <= 0) return Wait::kTimedOut;
    pollfd fds[2] = {{pFd, pEvents, 0}, {pStopFd, POLLIN, 0}};
    const int ready =
        poll(fds, pStopFd >= 0 ? 2 : 1, static_cast<int>(std::min<long>(left, 60000)));
    if (ready < 0 && errno != EINTR) return Wait::kFailed;
    if (ready <= 0) continue;
    if (pStopFd >= 0 && fds[1].revents != 0) return Wait::kStopped;
    if (fds[0].revents != 0) return Wait::kReady;
  }
}

[[noreturn]] void fail(const std::string& pFunction, const std::string& pWhat) {
  throw OXError("OXBroker", pFunction, pWhat + ": " + std::strerror(errno), kCallsFile, 0);
}

// A growable byte buffer that does not clear what it gets.
struct Bytes {
  std::unique_ptr<unsigned char[]> fData;
  std::size_t fCapacity = 0;
  // Room for pSize bytes, the first pKeep of which are kept.
  void reserve(std::size_t pSize, std::size_t pKeep) {
    if (pSize <= fCapacity) return;
    const std::size_t capacity = std::max(pSize, std::min(2 * fCapacity, std::size_t(1) << 30));
    std::unique_ptr<unsigned char[]> data(new unsigned char[capacity]);
    if (pKeep > 0) std::memcpy(data.get(), fData.get(), pKeep);
    fData = std::move(data);
    fCapacity = capacity;
  }
  void trim() {
    if (fCapacity > kKeptBuffer) {
      fData.reset();
      fCapacity = 0;
    }
  }
};

// The reading side of a connection on the host, with what the system gave beyond the last read.
class Inbox {
 public:
  Inbox(int pFd, int pStopFd) : fFd(pFd), fStopFd(pStopFd), fAhead(new unsigned char[kReadAhead]) {}
  bool buffered() const { return fStart < fEnd; }
  // Reads pSize bytes into pData (null: drops them) by pDeadline; false when the connection
  // closed, failed, timed out or the host stops.
  bool read(void* pData, std::size_t pSize, Clock::time_point pDeadline) {
    auto* to = static_cast<unsigned char*>(pData);
    while (pSize > 0) {
      if (fStart < fEnd) {
        const std::size_t take = std::min(pSize, fEnd - fStart);
        if (to != nullptr) {
          std::memcpy(to, fAhead.get() + fStart, take);
          to += take;
        }
        fStart += take;
        pSize -= take;
        continue;
      }
      // Large reads go straight where they belong.
      const bool direct = to != nullptr && pSize >= kReadAhead;
      const ssize_t got =
          recv(fFd, direct ? to : fAhead.get(), direct ? pSize : kReadAhead, MSG_DONTWAIT);
      if (got > 0) {
        if (direct) {
          to += got;
          pSize -= static_cast<std::size_t>(got);
        } else {
          fStart = 0;
          fEnd = static_cast<std::size_t>(got);
        }
        continue;
      }
      if (got == 0 || (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)) return false;
      if (errno != EINTR && waitFor(fFd, POLLIN, pDeadline, fStopFd) != Wait::kReady) return false;
    }
    return true;
  }

 private:
  const int fFd;
  const int fStopFd;
  std::unique_ptr<unsigned char[]> fAhead;
  std::size_t fStart = 0;
  std::size_t fEnd = 0;
};

}  // namespace

bool writeMessage(int pFd, const wire::Encoded& pMessage, Clock::time_point pDeadline, int pStopFd,
                  int pLingerMs) {
  std::uint64_t total = kFramePrefixBytes + pMessage.fHeader.size();
  for (const OXValue::Binary* frame : pMessage.fFrames) total += kFramePrefixBytes + frame->size();
  unsigned char prefix[kMessagePrefixBytes + kFramePrefixBytes];
  const std::uint64_t total64 = htole64(total);
  const std::uint32_t header32 = htole32(static_cast<std::uint32_t>(pMessage.fHeader.size()));
  std::memcpy(prefix, &total64, sizeof(total64));
  std::memcpy(prefix + kMessagePrefixBytes, &header32, sizeof(header32));
  std::vector<std::uint32_t> words(pMessage.fFrames.size());
  std::vector<iovec> parts;
  parts.reserve(2 + 2 * pMessage.fFrames.size());
  parts.push_back({prefix, sizeof(prefix)});
  if (!pMessage.fHeader.empty()) {
    parts.push_back({const_cast<char*>(pMessage.fHeader.data()), pMessage.fHeader.size()});
  }
  for (std::size_t i = 0; i < pMessage.fFrames.size(); ++i) {
    const OXValue::Binary& frame = *pMessage.fFrames[i];
    words[i] = htole32(static_cast<std::uint32_t>(frame.size()));
    parts.push_back({&words[i], sizeof(words[i])});
    if (!frame.empty()) parts.push_back({const_cast<unsigned char*>(frame.data()), frame.size()});
  }
  std::size_t at = 0;
  while (at < parts.size()) {
    msghdr message{};
    message.msg_iov = &parts[at];
    message.msg_iovlen = std::min<std::size_t>(parts.size() - at, IOV_MAX);
    ssize_t sent = sendmsg(pFd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
      const Wait wait = waitFor(pFd, POLLOUT, pDeadline, pStopFd);
      if (wait == Wait::kStopped) {
        // The host stops: the reply has a moment more, not the whole deadline.
        pDeadline = std::min(pDeadline, Clock::now() + std::chrono::milliseconds(pLingerMs));
        pStopFd = -1;
      } else if (wait != Wait::kReady) {
        return false;
      }
      continue;
    }
    while (sent > 0) {
      iovec& part = parts[at];
      if (static_cast<std::size_t>(sent) >= part.iov_len) {
        sent -= static_cast<ssize_t>(part.iov_len);
        ++at;
      } else {
        part.iov_base = static_cast<char*>(part.iov_base) + sent;
        part.iov_len -= static_cast<std::size_t>(sent);
        sent = 0;
      }
    }
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// The client's side

CallsClient::CallsClient(const std::string& pAddress, const std::string& pToken, int pTimeoutMs) {
  if (pAddress.size() < 2 || pAddress[0] != '@') {
    throw OXError("OXProxy", "connect", "malformed calls address", kCallsFile, __LINE__);
  }
  fFd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fFd < 0) fail("connect", "cannot make a calls socket");
  socklen_t length = 0;
  const sockaddr_un address = abstractAddress(pAddress, length);
  char answer = 0;
  const auto deadline = Clock::now() + std::chrono::milliseconds(pTimeoutMs);
  bool admitted = connect(fFd, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
                  ::send(fFd, pToken.data(), pToken.size(), MSG_NOSIGNAL) ==
                      static_cast<ssize_t>(pToken.size()) &&
                  waitFor(fFd, POLLIN, deadline, -1) == Wait::kReady &&
                  recv(fFd, &answer, 1, 0) == 1 && answer == '1';
  if (!admitted) {
    const int error = errno;
    close(fFd);
    fFd = -1;
    errno = answer == '0' ? EACCES : error;
    fail("connect", "the calls door refused");
  }
}

CallsClient::~CallsClient() {
  if (fFd >= 0) close(fFd);
}

CallsClient::Result CallsClient::send(const wire::Encoded& pMessage, Clock::time_point pDeadline) {
  if (writeMessage(fFd, pMessage, pDeadline)) return Result::kDone;
  return Clock::now() >= pDeadline ? Result::kTimedOut : Result::kClosed;
}

CallsClient::Result CallsClient::receive(std::vector<wire::FrameView>& pFrames,
                                         Clock::time_point pDeadline, bool& pStarted) {
  pFrames.clear();
  // What came after the last message moves to the front; a large inbox is given back.
  const std::size_t left = fFilled - fUsed;
  if (fCapacity > kKeptBuffer && left <= kReadAhead) {
    std::unique_ptr<unsigned char[]> smaller(new unsigned char[kReadAhead]);
    if (left > 0) std::memcpy(smaller.get(), fInbox.get() + fUsed, left);
    fInbox = std::move(smaller);
    fCapacity = kReadAhead;
  } else if (left > 0 && fUsed > 0) {
    std::memmove(fInbox.get(), fInbox.get() + fUsed, left);
  }
  fFilled = left;
  fUsed = 0;
  if (fCapacity == 0) {
    fInbox.reset(new unsigned char[kReadAhead]);
    fCapacity = kReadAhead;
  }
  pStarted = fFilled > 0;
  std::uint64_t total = UINT64_MAX;
  while (true) {
    if (total == UINT64_MAX && fFilled >= kMessagePrefixBytes) {
      std::memcpy(&total, fInbox.get(), sizeof(total));
      total = le64toh(total);
      if (total > (std::uint64_t(1) << 40)) return Result::kClosed;  // not a message of a host
      const std::size_t whole = kMessagePrefixBytes + static_cast<std::size_t>(total);
      if (whole > fCapacity) {
        std::unique_ptr<unsigned char[]> larger(new unsigned char[whole]);
        std::memcpy(larger.get(), fInbox.get(), fFilled);
        fInbox = std::move(larger);
        fCapacity = whole;
      }
    }
    if (total != UINT64_MAX && fFilled >= kMessagePrefixBytes + total) break;
    // The reply is seldom there at once: wait first.
    const Wait wait = waitFor(fFd, POLLIN, pDeadline, -1);
    if (wait == Wait::kTimedOut) return Result::kTimedOut;
    if (wait != Wait::kReady) return Result::kClosed;
    const ssize_t got = recv(fFd, fInbox.get() + fFilled, fCapacity - fFilled, MSG_DONTWAIT);
    if (got == 0) return Result::kClosed;
    if (got < 0) {
      if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
      return Result::kClosed;
    }
    fFilled += static_cast<std::size_t>(got);
    pStarted = true;
  }
  const std::size_t end = kMessagePrefixBytes + static_cast<std::size_t>(total);
  std::size_t at = kMessagePrefixBytes;
  while (at < end) {
    std::uint32_t size = 0;
    if (end - at < kFramePrefixBytes) return Result::kClosed;
    std::memcpy(&size, fInbox.get() + at, sizeof(size));
    size = le32toh(size);
    at += kFramePrefixBytes;
    if (size > end - at) return Result::kClosed;
    pFrames.push_back({fInbox.get() + at, size});
    at += size;
  }
  fUsed = end;
  return Result::kDone;
}

// ---------------------------------------------------------------------------------------------
// The host's side

LocalCalls::LocalCalls(const HostLimits& pLimits, std::shared_ptr<ByteAccount> pHostBytes,
                       std::size_t pMaxConnections, int pDeadlineMs, Server pServe,
                       Current pCurrent)
    : fLimits(pLimits),
      fHostBytes(std::move(pHostBytes)),
      fMaxConnections(std::max<std::size_t>(1, pMaxConnections)),
      fDeadlineMs(std::max(50, pDeadlineMs)),
      fServe(std::move(pServe)),
      fCurrent(std::move(pCurrent)) {}

LocalCalls::~LocalCalls() {
  stop();
}

void LocalCalls::start() {
  if (fListen >= 0 || fStopping) return;
  try {
    fAddress = abstractSocketName("oxbroker-calls");
    fListen = listenAtAbstractAddress(fAddress, SOCK_STREAM, "the calls door");
    fStop = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fStop < 0) fail("start", "cannot make the calls door's wake-up");
  } catch (const OXError& error) {
    if (fListen >= 0) close(fListen);
    fListen = -1;
    ki::log::LogStream(kLogWarning, kLogCategory, "", "start", 0)
        << "calls of clients on this machine go through ZeroMQ: " << error.getDescription();
    return;
  }
  fDoor = std::thread([this] { door(); });
}

void LocalCalls::stop() {
  if (fStopping.exchange(true) || fListen < 0) return;
  const std::uint64_t one = 1;
  (void)!write(fStop, &one, sizeof(one));  // never read again: every wait ends at once
  fDoor.join();
  // Nobody adds connections any more; each thread ends by itself and closes its socket.
  for (Connection& connection : fConnections) connection.fThread.join();
  fConnections.clear();
  close(fListen);
  close(fStop);
}

std::size_t LocalCalls::connections() const {
  std::lock_guard<std::mutex> guard(fMutex);
  return static_cast<std::size_t>(
      std::count_if(fConnections.begin(), fConnections.end(),
                    [](const Connection& pConnection) { return !pConnection.fDone; }));
}

OXValue LocalCalls::expect(const std::string& pRoutingId, const std::string& pPeer,
                           const std::shared_ptr<SharedArea>& pArea) {
  if (fListen < 0 || fStopping)
    return OXValue("calls over a Unix socket are not offered by this host");
  std::lock_guard<std::mutex> guard(fMutex);
  // Tokens of areas that ended unclaimed are forgotten as new ones come.
  for (auto it = fExpected.begin(); it != fExpected.end();) {
    it = it->second.fArea.expired() ? fExpected.erase(it) : std::next(it);
  }
  fExpected[pArea->token()] = Expected{pRoutingId, pPeer, pArea};
  return OXValue::array({fAddress});
}

void LocalCalls::door() {
  while (true) {
    std::vector<pollfd> fds = {{fStop, POLLIN, 0}, {fListen, POLLIN, 0}};
    for (const Visitor& visitor : fVisitors) fds.push_back({visitor.fFd, POLLIN, 0});
    if (fVisitors.size() >= kDoorPending) fds[1].events = 0;
    // Only visitors have deadlines, and ended connections wait to be joined: an idle door sleeps.
    (void)poll(fds.data(), fds.size(), fVisitors.empty() ? 1000 : 100);
    if (fds[0].revents != 0) break;
    const auto now = Clock::now();
    std::vector<Visitor> staying;
    for (std::size_t i = 0; i < fVisitors.size(); ++i) {
      if (fds[i + 2].revents != 0 && visit(fVisitors[i])) continue;
      if (now > fVisitors[i].fDeadline) {
        close(fVisitors[i].fFd);
      } else {
        staying.push_back(std::move(fVisitors[i]));
      }
    }
    fVisitors.swap(staying);
    if (fds[1].revents != 0) admit(now);
    reap();
  }
  for (const Visitor& visitor : fVisitors) close(visitor.fFd);
  fVisitors.clear();
}

void LocalCalls::admit(Clock::time_point pNow) {
  while (fVisitors.size() < kDoorPending) {
    const int fd = accept4(fListen, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    fVisitors.push_back({fd, pNow + std::chrono::milliseconds(kDoorDeadlineMs), std::string()});
  }
}

// Lets in a process of the host's own user that shows the token of a live area, once; the
// connection is then served on a thread of its own.
bool LocalCalls::visit(Visitor& pVisitor) {
  char token[kAreaTokenBytes];
  const ssize_t got = recv(pVisitor.fFd, token, kAreaTokenBytes - pVisitor.fToken.size(), 0);
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return false;
  if (got > 0) pVisitor.fToken.append(token, static_cast<std::size_t>(got));
  if (got > 0 && pVisitor.fToken.size() < kAreaTokenBytes) return false;
  Expected session;
  bool admitted = false;
  ucred credentials{};
  socklen_t length = sizeof(credentials);
  if (got > 0 && getsockopt(pVisitor.fFd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0 &&
      credentials.uid == geteuid()) {
    reap();
    std::lock_guard<std::mutex> guard(fMutex);
    auto found = fExpected.find(pVisitor.fToken);
    if (found != fExpected.end()) {
      session = std::move(found->second);
      fExpected.erase(found);
      const std::shared_ptr<SharedArea> area = session.fArea.lock();
      admitted =
          area && fCurrent(session.fRoutingId, area.get()) && fConnections.size() < fMaxConnections;
    }
  }
  const char answer = admitted ? '1' : '0';
  if (got <= 0 || send(pVisitor.fFd, &answer, 1, MSG_NOSIGNAL | MSG_DONTWAIT) != 1 || !admitted) {
    close(pVisitor.fFd);
    return true;
  }
  std::lock_guard<std::mutex> guard(fMutex);
  fConnections.emplace_back();
  Connection& connection = fConnections.back();
  connection.fFd = pVisitor.fFd;
  connection.fSession = std::move(session);
  connection.fThread = std::thread([this, &connection] { serve(connection); });
  return true;
}

void LocalCalls::reap() {
  std::list<Connection> ended;
  {
    std::lock_guard<std::mutex> guard(fMutex);
    for (auto it = fConnections.begin(); it != fConnections.end();) {
      auto next = std::next(it);
      if (it->fDone) ended.splice(ended.end(), fConnections, it);
      it = next;
    }
  }
  for (Connection& connection : ended) connection.fThread.join();
}

void LocalCalls::serve(Connection& pConnection) {
  Inbox inbox(pConnection.fFd, fStop);
  Bytes storage;
  while (!fStopping) {
    // Between requests: the connection waits, and ends as soon as its session lets its area go.
    if (!inbox.buffered()) {
      const Wait wait = waitFor(pConnection.fFd, POLLIN,
                                Clock::now() + std::chrono::milliseconds(kCheckMs), fStop);
      if (wait == Wait::kStopped || wait == Wait::kFailed) break;
      if (wait == Wait::kTimedOut) {
        const std::shared_ptr<SharedArea> area = pConnection.fSession.fArea.lock();
        if (!area || !fCurrent(pConnection.fSession.fRoutingId, area.get())) break;
        continue;
      }
    }
    const auto deadline = Clock::now() + std::chrono::milliseconds(fDeadlineMs);
    std::uint64_t total = 0;
    if (!inbox.read(&total, sizeof(total), deadline)) break;
    total = le64toh(total);
    // Frames are kept while the message is within its bounds (past them, only the header, for
    // the refusal's id); a frame that alone is over the message limit closes the connection, as
    // ZeroMQ does.
    FrameTally tally(fLimits);
    std::vector<std::pair<std::size_t, std::size_t>> kept;  // offset, size
    std::size_t stored = 0;
    if (total <= fLimits.fMaxMessageBytes) storage.reserve(static_cast<std::size_t>(total), 0);
    bool intact = true;
    while (intact && total > 0) {
      std::uint32_t size = 0;
      intact = total >= kFramePrefixBytes && inbox.read(&size, sizeof(size), deadline);
      if (!intact) break;
      size = le32toh(size);
      total -= kFramePrefixBytes;
      intact = size <= total && size <= fLimits.fMaxMessageBytes;
      if (!intact) break;
      total -= size;
      if (tally.add(size) || kept.empty()) {
        storage.reserve(stored + size, stored);
        intact = inbox.read(storage.fData.get() + stored, size, deadline);
        kept.emplace_back(stored, size);
        stored += size;
      } else {
        if (kept.size() > 1) {
          kept.resize(1);
          stored = kept[0].second;
        }
        intact = inbox.read(nullptr, size, deadline);
      }
    }
    if (!intact) break;
    std::vector<wire::FrameView> frames;
    frames.reserve(kept.size());
    for (const auto& [offset, size] : kept) frames.push_back({storage.fData.get() + offset, size});
    if (!exchange(pConnection, frames, tally)) break;
    storage.trim();
    const std::shared_ptr<SharedArea> area = pConnection.fSession.fArea.lock();
    // A bye, or a hello that replaced the area, ends the connection after its reply.
    if (!area || !fCurrent(pConnection.fSession.fRoutingId, area.get())) break;
  }
  std::lock_guard<std::mutex> guard(fMutex);
  close(pConnection.fFd);
  pConnection.fFd = -1;
  pConnection.fDone = true;
}

bool LocalCalls::exchange(Connection& pConnection, const std::vector<wire::FrameView>& pFrames,
                          const FrameTally& pTally) {
  const int fd = pConnection.fFd;
  const auto answer = [&](int pId, const OXError& pError) {
    const OXValue reply = errorReply(pId, pError);
    wire::Encoded encoded;
    wire::encode(reply, encoded);
    return writeMessage(fd, encoded, Clock::now() + std::chrono::milliseconds(fDeadlineMs), fStop,
                        kLingerMs);
  };
  // The refusals of the ZeroMQ path, in its order.
  if (pFrames.empty()) return answer(-1, hostError("decode", "malformed message: no frames"));
  const wire::RequestStart start = wire::peekRequest(pFrames[0]);
  if (pTally.over()) return answer(start.fId, hostError("decode", pTally.refusal()));
  const std::size_t cost = requestCost(pTally.bytes());
  const Refusal refusal = fStopping
                              ? Refusal::kStopping
                              : net::admit(fLimits, 0, *pConnection.fBytes, *fHostBytes, cost);
  if (refusal != Refusal::kNone) {
    return answer(start.fId, hostError("call", refusalText(fLimits, refusal)));
  }
  const Reservation held(pConnection.fBytes, fHostBytes, cost);
  std::size_t requestBytes = 0;  // as the metrics count them: the frames' bytes
  for (const wire::FrameView& frame : pFrames) requestBytes += frame.fSize;
  bool written = false;
  ++fRunning;
  try {
    fServe(pConnection.fSession.fRoutingId, pFrames, requestBytes, start.fId,
           pConnection.fSession.fPeer, [&](const wire::Encoded& pReply, std::size_t pBytes) {
             const Reservation sending(pConnection.fBytes, fHostBytes, pBytes);
             written =
                 writeMessage(fd, pReply, Clock::now() + std::chrono::milliseconds(fDeadlineMs),
                              fStop, kLingerMs);
           });
  } catch (const std::exception& error) {
    ki::log::LogStream(kLogWarning, kLogCategory, "", "serve", 0)
        << "a call over a Unix socket failed: " << error.what();
  }
  --fRunning;
  return written;
}

}  // namespace net
}  // namespace OX
