// The same-host channel; see oxsharedmemory.h.
#include "oxsharedmemory.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <regex>

#include "kilog.h"
#include "oxerror.h"
#include "oxhostlog.h"

namespace OX {
namespace net {

namespace {

const char* const kAreaFile = "net/oxsharedmemory";
// A client has this long to show its token once it is let in at the door.
constexpr int kDoorDeadlineMs = 1000;
// Clients at the door at once; more wait in the socket's backlog.
constexpr std::size_t kDoorPending = 16;
// How long a client waits for the door.
constexpr int kClientDoorTimeoutMs = 2000;

[[noreturn]] void fail(const std::string& pFunction, const std::string& pWhat) {
  throw OXError("OXBroker", pFunction, pWhat + ": " + std::strerror(errno), kAreaFile, 0);
}

std::uint64_t roundUp(std::uint64_t pValue, std::uint64_t pStep) {
  return (pValue + pStep - 1) / pStep * pStep;
}

std::string randomBytes(std::size_t pCount) {
  std::string bytes(pCount, '\0');
  std::size_t got = 0;
  while (got < pCount) {
    const ssize_t n = getrandom(&bytes[got], pCount - got, 0);
    if (n < 0 && errno != EINTR) fail("hello", "no random bytes");
    if (n > 0) got += static_cast<std::size_t>(n);
  }
  return bytes;
}

std::string hex(const std::string& pBytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (unsigned char c : pBytes) {
    text += kDigits[c >> 4];
    text += kDigits[c & 15];
  }
  return text;
}

std::uint64_t* releasedWord(unsigned char* pBase) {
  return reinterpret_cast<std::uint64_t*>(pBase + kAreaReleasedOffset);
}

}  // namespace

std::string abstractSocketName(const std::string& pPrefix) {
  return "@" + pPrefix + "-" + std::to_string(getpid()) + "-" + hex(randomBytes(8));
}

sockaddr_un abstractAddress(const std::string& pName, socklen_t& pLength) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t size = std::min(pName.size() - 1, sizeof(address.sun_path) - 1);
  std::memcpy(address.sun_path + 1, pName.data() + 1, size);
  pLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + size);
  return address;
}

int listenAtAbstractAddress(const std::string& pName, int pType, const std::string& pDoor) {
  const int fd = socket(AF_UNIX, pType | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) fail("start", "cannot make " + pDoor);
  socklen_t length = 0;
  const sockaddr_un address = abstractAddress(pName, length);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0 || listen(fd, 64) != 0) {
    const int error = errno;
    close(fd);
    errno = error;
    fail("start", "cannot open " + pDoor + " " + pName);
  }
  return fd;
}

bool isLocalPeer(const std::string& pPeerAddress) {
  in_addr v4{};
  if (inet_pton(AF_INET, pPeerAddress.c_str(), &v4) == 1) {
    return (ntohl(v4.s_addr) >> 24) == 127;
  }
  in6_addr v6{};
  if (inet_pton(AF_INET6, pPeerAddress.c_str(), &v6) == 1) {
    if (IN6_IS_ADDR_LOOPBACK(&v6)) return true;
    return IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127;
  }
  // ZeroMQ describes the peer of an ipc connection by its credentials, "host:uid:gid:pid".
  static const std::regex kIpcPeer("[A-Za-z][^:%]*:[0-9]+:[0-9]+:[0-9]+");
  return std::regex_match(pPeerAddress, kIpcPeer);
}

// ---------------------------------------------------------------------------------------------
// The host's area

SharedArea::SharedArea(std::size_t pBytes, std::size_t pThreshold, Reservation&& pCharge)
    : fBytes(pBytes),
      fCapacity(pBytes - kAreaHeaderBytes),
      fThreshold(pThreshold),
      fToken(randomBytes(kAreaTokenBytes)),
      fCharge(std::move(pCharge)) {
  fFd = memfd_create("oxbroker-area", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fFd < 0) fail("hello", "cannot make a shared-memory area");
  // Sealed to its size: a client can neither shrink it under the host's writes nor grow it.
  if (ftruncate(fFd, static_cast<off_t>(fBytes)) != 0 ||
      fcntl(fFd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
    close(fFd);
    fail("hello", "cannot size the shared-memory area");
  }
  void* base = mmap(nullptr, fBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fFd, 0);
  if (base == MAP_FAILED) {
    close(fFd);
    fail("hello", "cannot map the shared-memory area");
  }
  fBase = static_cast<unsigned char*>(base);
  std::memcpy(fBase, kAreaMagic, sizeof(kAreaMagic));
}

SharedArea::~SharedArea() {
  munmap(fBase, fBytes);
  close(fFd);
}

bool SharedArea::claim(std::size_t pSize, std::uint64_t& pPosition) {
  // The client's word is checked: a position beyond what was placed is no release at all.
  const std::uint64_t released = __atomic_load_n(releasedWord(fBase), __ATOMIC_ACQUIRE);
  if (released <= fHead && released > fReleased) fReleased = released;
  // Everything given back: start again at the front of the ring, where the caches are warm. The
  // whole ring is free then, whatever the client's word says later.
  if (fReleased >= fLastEnd && fLentCount == 0) {
    fHead = roundUp(fHead, fCapacity);
    fReleased = fHead;
  }
  // A lent room stays held even where the client has released past it (the replies of its calls
  // may overtake one another): a binary of the host may still be written there, or sent from it.
  std::uint64_t held = fReleased;
  for (std::size_t i = 0; i < fLentCount; ++i) held = std::min(held, fLent[i].fPosition);
  std::uint64_t position = fHead;
  const std::uint64_t offset = position % fCapacity;
  if (offset + pSize > fCapacity) position += fCapacity - offset;  // no binary wraps around
  if (position + pSize - held > fCapacity) return false;           // the client still holds it
  pPosition = position;
  return true;
}

bool SharedArea::place(const void* pData, std::size_t pSize, std::uint64_t& pPosition) {
  if (!fAttached) return false;
  std::lock_guard<std::mutex> guard(fMutex);
  std::size_t room = kMaxLentRooms;
  for (std::size_t i = 0; i < fLentCount; ++i) {
    if (at(fLent[i].fPosition) == pData && fLent[i].fSize == pSize) room = i;
  }
  // Already in its room: from now on the client's, like any placed binary. Unless a reply lent a
  // room later has been placed since: the client releases everything up to the end of what it
  // has read, so positions must grow in the order replies are placed, and this one is copied
  // after the other instead (its room is held until the copy is made).
  if (room < kMaxLentRooms && fLent[room].fPosition >= fLastEnd) {
    pPosition = fLent[room].fPosition;
    fLastEnd = pPosition + pSize;
    endLoan(room);
    return true;
  }
  if (pSize < fThreshold || pSize > fCapacity) return false;
  std::uint64_t position = 0;
  if (!claim(pSize, position)) return false;
  written(position, pSize, 0);
  std::memcpy(at(position), pData, pSize);
  if (room < kMaxLentRooms) endLoan(room);
  fLastEnd = position + pSize;
  fHead = roundUp(position + pSize, kAreaAlignment);
  pPosition = position;
  return true;
}

bool SharedArea::written(std::uint64_t pPosition, std::size_t pSize, std::uint64_t pContent) {
  const std::size_t offset = pPosition % fCapacity;
  if (pContent != 0 && pContent == fKnown.fContent && offset == fKnown.fOffset &&
      pSize == fKnown.fSize) {
    return true;
  }
  if (offset < fKnown.fOffset + fKnown.fSize && fKnown.fOffset < offset + pSize) fKnown = {};
  if (pContent != 0) fKnown = {pContent, offset, pSize};
  return false;
}

unsigned char* SharedArea::reserve(std::size_t pSize, std::uint64_t pContent,
                                   std::uint64_t& pTicket, bool& pHolds) {
  // A binary that would travel in the header could never be placed, only given back.
  if (!fAttached || pSize < std::max(fThreshold, wire::kOutOfLineBinary) || pSize > fCapacity) {
    return nullptr;
  }
  std::lock_guard<std::mutex> guard(fMutex);
  std::uint64_t position = 0;
  if (fLentCount == kMaxLentRooms || !claim(pSize, position)) return nullptr;
  pHolds = written(position, pSize, pContent);
  if (fHolders++ == 0) fWhileHeld = weak_from_this().lock();
  fLent[fLentCount++] = {position, pSize};
  fHead = roundUp(position + pSize, kAreaAlignment);
  pTicket = position;
  return at(position);
}

void SharedArea::giveBack(std::uint64_t pTicket) noexcept {
  // The last reference may be this one: the area ends once the mutex is released.
  std::shared_ptr<SharedArea> self;
  std::lock_guard<std::mutex> guard(fMutex);
  // The room is simply skipped: it is free again once the client has released past it, or
  // when the ring starts again at its front.
  for (std::size_t i = 0; i < fLentCount; ++i) {
    if (fLent[i].fPosition == pTicket) {
      endLoan(i);
      break;
    }
  }
  // Every binary made in a room gives it back once, placed or not.
  if (fHolders > 0 && --fHolders == 0) self = std::move(fWhileHeld);
}

// ---------------------------------------------------------------------------------------------
// The door: an abstract Unix socket where a client trades its token for the area's descriptor.

class SharedAreas::Door {
 public:
  Door() : fName(abstractSocketName("oxbroker-area")) {
    fListen = listenAtAbstractAddress(fName, SOCK_SEQPACKET, "the shared-memory door");
    // Without its wake-up the door could not be closed again: no door then.
    fWake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fWake < 0) {
      close(fListen);
      fail("start", "cannot make the shared-memory door's wake-up");
    }
    fThread = std::thread([this] { run(); });
  }
  ~Door() {
    const std::uint64_t one = 1;
    (void)!write(fWake, &one, sizeof(one));
    fThread.join();
    for (const Visitor& visitor : fVisitors) close(visitor.fFd);
    close(fListen);
    close(fWake);
  }
  const std::string& name() const { return fName; }

  void expect(const std::shared_ptr<SharedArea>& pArea) {
    std::lock_guard<std::mutex> guard(fMutex);
    // Tokens of areas that ended unclaimed are forgotten as new ones come.
    for (auto it = fExpected.begin(); it != fExpected.end();) {
      it = it->second.expired() ? fExpected.erase(it) : std::next(it);
    }
    fExpected[pArea->token()] = pArea;
  }

 private:
  struct Visitor {
    int fFd;
    std::chrono::steady_clock::time_point fDeadline;
  };

  void run() {
    while (true) {
      std::vector<pollfd> fds = {{fWake, POLLIN, 0}, {fListen, POLLIN, 0}};
      for (const Visitor& visitor : fVisitors) fds.push_back({visitor.fFd, POLLIN, 0});
      if (fVisitors.size() >= kDoorPending) fds[1].events = 0;
      // Only visitors have deadlines: an idle door sleeps until someone knocks.
      (void)poll(fds.data(), fds.size(), fVisitors.empty() ? -1 : 100);
      if (fds[0].revents != 0) return;
      const auto now = std::chrono::steady_clock::now();
      std::vector<Visitor> staying;
      for (std::size_t i = 0; i < fVisitors.size(); ++i) {
        if (fds[i + 2].revents != 0) {
          serve(fVisitors[i].fFd);
        } else if (now > fVisitors[i].fDeadline) {
          close(fVisitors[i].fFd);
        } else {
          staying.push_back(fVisitors[i]);
        }
      }
      fVisitors.swap(staying);
      if (fds[1].revents != 0) admit(now);
    }
  }

  void admit(std::chrono::steady_clock::time_point pNow) {
    while (fVisitors.size() < kDoorPending) {
      const int fd = accept4(fListen, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) return;
      fVisitors.push_back({fd, pNow + std::chrono::milliseconds(kDoorDeadlineMs)});
    }
  }

  // Reads the token; hands the descriptor over to a process of the host's own user that shows a
  // token of a live area, once.
  void serve(int pFd) {
    char token[kAreaTokenBytes + 1];
    const ssize_t size = recv(pFd, token, sizeof(token), 0);
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    std::shared_ptr<SharedArea> area;
    if (size == static_cast<ssize_t>(kAreaTokenBytes) &&
        getsockopt(pFd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0 &&
        credentials.uid == geteuid()) {
      std::lock_guard<std::mutex> guard(fMutex);
      auto found = fExpected.find(std::string(token, kAreaTokenBytes));
      if (found != fExpected.end()) {
        area = found->second.lock();
        fExpected.erase(found);
      }
    }
    char answer = area ? '1' : '0';
    iovec part{&answer, 1};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (area) {
      message.msg_control = control;
      message.msg_controllen = sizeof(control);
      cmsghdr* header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(sizeof(int));
      const int fd = area->descriptor();
      std::memcpy(CMSG_DATA(header), &fd, sizeof(fd));
      // Before the descriptor leaves: the client's next request may come at once.
      area->markAttached();
    }
    if (sendmsg(pFd, &message, MSG_NOSIGNAL) != 1 && area) {
      ki::log::LogStream(kLogWarning, kLogCategory, "", "serve", 0)
          << "a shared-memory area could not be handed over: " << std::strerror(errno);
    }
    close(pFd);
  }

  const std::string fName;
  int fListen = -1;
  int fWake = -1;
  std::vector<Visitor> fVisitors;  // door thread only
  std::mutex fMutex;
  std::map<std::string, std::weak_ptr<SharedArea>> fExpected;
  std::thread fThread;
};

SharedAreas::SharedAreas(std::size_t pAreaBytes, std::size_t pMaxAreaBytes, std::size_t pThreshold)
    : fAreaBytes(pAreaBytes == 0 ? 0 : std::max(pAreaBytes, 2 * kAreaHeaderBytes)),
      fMaxAreaBytes(pMaxAreaBytes),
      fThreshold(std::max<std::size_t>(pThreshold, 1)) {}

SharedAreas::~SharedAreas() {
  stop();
}

void SharedAreas::start() {
  if (fAreaBytes == 0 || fDoor) return;
  try {
    fDoor.reset(new Door());
  } catch (const OXError& error) {
    // The host serves all the same, through its socket only.
    ki::log::LogStream(kLogWarning, kLogCategory, "", "start", 0)
        << "no shared memory for clients on this machine: " << error.getDescription();
  }
}

void SharedAreas::stop() {
  fDoor.reset();
}

OXValue SharedAreas::offer(const std::string& pPeerAddress, std::shared_ptr<SharedArea>& pArea) {
  if (fAreaBytes == 0 || !fDoor) return OXValue("shared memory is not offered by this host");
  if (!isLocalPeer(pPeerAddress)) {
    return OXValue("shared memory refused: the client is not on this machine");
  }
  Reservation charge(nullptr, fAccount, fAreaBytes);
  if (fAccount->held() > fMaxAreaBytes) {
    return OXValue("shared memory refused: at most " + std::to_string(fMaxAreaBytes) +
                   " bytes of areas for all clients");
  }
  try {
    pArea = std::make_shared<SharedArea>(fAreaBytes, fThreshold, std::move(charge));
  } catch (const OXError& error) {
    return OXValue("shared memory refused: " + error.getDescription());
  }
  fDoor->expect(pArea);
  return OXValue::array({fDoor->name(),
                         OXValue::binary(pArea->token().data(), int(pArea->token().size())),
                         static_cast<int>(fAreaBytes), static_cast<int>(fThreshold)});
}

// ---------------------------------------------------------------------------------------------
// The client's side

AreaClient::AreaClient(const OXValue& pOffer) {
  const bool wellFormed = pOffer.isArray() && pOffer.getSize() == 4 && pOffer[0].isString() &&
                          pOffer[0].asString().size() > 1 && pOffer[0].asString()[0] == '@' &&
                          pOffer[1].isBinary() && pOffer[1].getSize() == int(kAreaTokenBytes) &&
                          pOffer[2].isInt() && pOffer[2].asInt() > int(kAreaHeaderBytes);
  if (!wellFormed) {
    throw OXError("OXProxy", "connect", "malformed shared-memory offer", kAreaFile, __LINE__);
  }
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) fail("connect", "cannot reach the shared-memory door");
  const timeval timeout{kClientDoorTimeoutMs / 1000, (kClientDoorTimeoutMs % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  socklen_t length = 0;
  const sockaddr_un address = abstractAddress(pOffer[0].asString(), length);
  char answer = 0;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  iovec part{&answer, 1};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const bool exchanged = connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
                         send(fd, pOffer[1].GetBinary(), kAreaTokenBytes, MSG_NOSIGNAL) ==
                             static_cast<ssize_t>(kAreaTokenBytes) &&
                         recvmsg(fd, &message, MSG_CMSG_CLOEXEC) == 1;
  const int savedErrno = errno;
  close(fd);
  const cmsghdr* header = exchanged ? CMSG_FIRSTHDR(&message) : nullptr;
  if (answer != '1' || header == nullptr || header->cmsg_type != SCM_RIGHTS) {
    errno = exchanged ? EACCES : savedErrno;
    fail("connect", "the shared-memory door refused");
  }
  int area = -1;
  std::memcpy(&area, CMSG_DATA(header), sizeof(area));
  fBytes = static_cast<std::size_t>(pOffer[2].asInt());
  fCapacity = fBytes - kAreaHeaderBytes;
  struct stat status {};
  void* base = MAP_FAILED;
  if (fstat(area, &status) == 0 && static_cast<std::size_t>(status.st_size) == fBytes) {
    base = mmap(nullptr, fBytes, PROT_READ | PROT_WRITE, MAP_SHARED, area, 0);
  }
  close(area);
  if (base == MAP_FAILED) fail("connect", "cannot map the shared-memory area");
  fBase = static_cast<unsigned char*>(base);
  if (std::memcmp(fBase, kAreaMagic, sizeof(kAreaMagic)) != 0) {
    munmap(fBase, fBytes);
    throw OXError("OXProxy", "connect", "not a shared-memory area", kAreaFile, __LINE__);
  }
}

AreaClient::~AreaClient() {
  munmap(fBase, fBytes);
}

const unsigned char* AreaClient::resolve(std::uint64_t pPosition, std::size_t pSize) {
  const std::uint64_t offset = pPosition % fCapacity;
  if (pSize > fCapacity || offset + pSize > fCapacity) return nullptr;
  fSeenEnd = std::max(fSeenEnd, pPosition + pSize);
  return fBase + kAreaHeaderBytes + offset;
}

void AreaClient::releaseAll() {
  __atomic_store_n(releasedWord(fBase), fSeenEnd, __ATOMIC_RELEASE);
}

}  // namespace net
}  // namespace OX
