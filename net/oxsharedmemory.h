// The same-host channel: a shared-memory area per session, where the broker host places the large
// binaries of its replies instead of sending them through the socket.
//
// A client on this machine (loopback TCP or ipc) asks for an area at hello. The host makes a
// sealed memfd (it can neither shrink nor grow, so nothing a client does to it can fault the
// host), and answers with the address of its door, an abstract Unix socket, and a one-time token.
// The client shows the token at the door and receives the descriptor (SCM_RIGHTS); only a process
// of the host's own user is served. From then on, binaries of at least the threshold travel as a
// position in the area (wire ext type 2) when the area has room, and as frames otherwise.
//
// The area is a ring. The client writes, in the area's header, the position up to which it is
// done with what it received; the host never writes over what lies beyond it. Whatever the client
// writes there can only make the host send frames instead, never write outside the ring. An area
// lives as long as its session (bye, a closed connection, no answer to heartbeats); the memfd has
// no name, so nothing is left behind when either side dies. docs/protocol.md describes the layout.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "oxbounds.h"
#include "oxvalue.h"
#include "oxwire.h"

namespace OX {
namespace net {

// The area's layout: a header page, then the ring.
constexpr std::size_t kAreaHeaderBytes = 4096;
constexpr std::size_t kAreaReleasedOffset = 64;  // uint64, little-endian: written by the client
constexpr char kAreaMagic[8] = {'O', 'X', 'A', 'R', 'E', 'A', '1', '\0'};
// Placed binaries start at multiples of this many bytes.
constexpr std::size_t kAreaAlignment = 64;
constexpr std::size_t kDefaultAreaBytes = std::size_t(16) << 20;
constexpr std::size_t kDefaultMaxAreaBytes = std::size_t(256) << 20;
// Smaller binaries cost less in the message than an area round trip saves.
constexpr std::size_t kDefaultPlaceThreshold = std::size_t(64) << 10;
constexpr std::size_t kAreaTokenBytes = 16;

// Whether a peer, as ZeroMQ reports it ("Peer-Address"), is on this machine: a loopback address
// (127.0.0.0/8, ::1, ::ffff:127.0.0.0/104), or an ipc connection ("host:uid:gid:pid"). Anything
// else, an empty address included, is not.
bool isLocalPeer(const std::string& pPeerAddress);

// A name for an abstract Unix socket of this process that no other process can guess:
// "@<pPrefix>-<pid>-<16 hex digits>". Throws OXError when the system has no random bytes.
std::string abstractSocketName(const std::string& pPrefix);
// The address of the abstract Unix socket pName ("@name"): it has no file, so nothing is left
// behind when its process dies.
sockaddr_un abstractAddress(const std::string& pName, socklen_t& pLength);
// A non-blocking socket of pType (SOCK_STREAM, SOCK_SEQPACKET) listening at the abstract address
// pName, for pDoor ("the calls door"); throws OXError ("cannot make <pDoor>", "cannot open
// <pDoor> <pName>") when the system refuses.
int listenAtAbstractAddress(const std::string& pName, int pType, const std::string& pDoor);

// One session's area, the host's side. Besides placing copies of binaries, it lends rooms of its
// ring to the result of a call while that call runs (OXReplyArenaScope), so that the device's
// copy of an image lands in the ring directly and placing it costs no second copy. A room lent
// is never handed out again, whatever the client releases, until its binary is placed (the
// client's from then on) or gone.
class SharedArea : public wire::BinaryPlacer,
                   public OXBinaryArena,
                   public std::enable_shared_from_this<SharedArea> {
 public:
  // Makes the memfd and maps it; throws OXError when the system refuses.
  SharedArea(std::size_t pBytes, std::size_t pThreshold, Reservation&& pCharge);
  ~SharedArea() override;
  SharedArea(const SharedArea&) = delete;
  SharedArea& operator=(const SharedArea&) = delete;

  // Copies a binary of at least the threshold into the ring, once the client holds the area and
  // when the ring has room; a binary that is already in a room of this ring lent by reserve is
  // only given its position. Thread-safe.
  bool place(const void* pData, std::size_t pSize, std::uint64_t& pPosition) override;
  // Lends a room of the ring to a binary of at least the threshold (and of a frame of its own),
  // once the client holds the area, when the ring has room and fewer than kMaxLentRooms are out.
  // A room whose bytes were last written with the same content, and not written over since,
  // holds them still (pHolds): the ring starts again at its front whenever the client has
  // released everything, so a client that asks for the same frame again gets the same room.
  unsigned char* reserve(std::size_t pSize, std::uint64_t pContent, std::uint64_t& pTicket,
                         bool& pHolds) override;
  void giveBack(std::uint64_t pTicket) noexcept override;

  int descriptor() const { return fFd; }
  std::size_t bytes() const { return fBytes; }
  std::size_t threshold() const { return fThreshold; }
  const std::string& token() const { return fToken; }
  // The client has its descriptor: placing may start.
  void markAttached() { fAttached = true; }
  bool attached() const { return fAttached; }

 private:
  int fFd = -1;
  unsigned char* fBase = nullptr;
  const std::size_t fBytes;
  const std::size_t fCapacity;  // of the ring
  const std::size_t fThreshold;
  std::string fToken;
  Reservation fCharge;
  std::atomic<bool> fAttached{false};
  std::mutex fMutex;
  std::uint64_t fHead = 0;      // the next free position (positions only grow)
  std::uint64_t fReleased = 0;  // what the client is known to be done with
  std::uint64_t fLastEnd = 0;   // the end of the latest placed binary

  // Rooms lent and not yet placed or given back: the calls of one session in flight at once.
  static constexpr std::size_t kMaxLentRooms = 16;
  struct Room {
    std::uint64_t fPosition;  // also the room's ticket: positions are never used twice
    std::size_t fSize;
  };
  std::array<Room, kMaxLentRooms> fLent{};
  std::size_t fLentCount = 0;
  // Binaries made in rooms of the ring and not yet gone, placed or not: while there are any the
  // area keeps itself alive, as they hold no reference to it and give their rooms back to it.
  std::size_t fHolders = 0;
  std::shared_ptr<SharedArea> fWhileHeld;

  // The named content that the ring holds, and where; fContent 0 when none.
  struct Known {
    std::uint64_t fContent = 0;
    std::size_t fOffset = 0;
    std::size_t fSize = 0;
  };
  Known fKnown;

  // Under fMutex: where pSize bytes can go, or false while the client or a lent room holds it.
  bool claim(std::size_t pSize, std::uint64_t& pPosition);
  // Under fMutex: pSize bytes of pContent (0: unnamed) are written at pPosition. Whether the ring
  // held them there already.
  bool written(std::uint64_t pPosition, std::size_t pSize, std::uint64_t pContent);
  // Under fMutex: the room at pIndex is placed or given back.
  void endLoan(std::size_t pIndex) { fLent[pIndex] = fLent[--fLentCount]; }
  unsigned char* at(std::uint64_t pPosition) const {
    return fBase + kAreaHeaderBytes + pPosition % fCapacity;
  }
};

// Makes the areas of a host and hands their descriptors out at its door.
class SharedAreas {
 public:
  // pAreaBytes 0: no area is ever offered.
  SharedAreas(std::size_t pAreaBytes, std::size_t pMaxAreaBytes,
              std::size_t pThreshold = kDefaultPlaceThreshold);
  ~SharedAreas();
  SharedAreas(const SharedAreas&) = delete;
  SharedAreas& operator=(const SharedAreas&) = delete;

  // Opens the door; when it cannot, logs why and offers no area.
  void start();
  void stop();

  // The answer to a client at pPeerAddress that asks for an area: [door, token, bytes, threshold]
  // with pArea set, or the text of the refusal.
  OXValue offer(const std::string& pPeerAddress, std::shared_ptr<SharedArea>& pArea);
  // The bytes of all live areas.
  std::size_t heldBytes() const { return fAccount->held(); }

 private:
  class Door;
  const std::size_t fAreaBytes;
  const std::size_t fMaxAreaBytes;
  const std::size_t fThreshold;
  std::shared_ptr<ByteAccount> fAccount = std::make_shared<ByteAccount>();
  std::unique_ptr<Door> fDoor;
};

// The client's side of an area: the mapping, the places of the binaries in replies, and what the
// client is done with.
class AreaClient : public wire::BinaryResolver {
 public:
  // Fetches the descriptor at the door with the token of pOffer (the hello's answer) and maps it.
  // Throws OXError when anything fails.
  explicit AreaClient(const OXValue& pOffer);
  ~AreaClient() override;
  AreaClient(const AreaClient&) = delete;
  AreaClient& operator=(const AreaClient&) = delete;

  // The bytes of a placed binary, or null when the place lies outside the ring.
  const unsigned char* resolve(std::uint64_t pPosition, std::size_t pSize) override;
  // Tells the host that everything received so far may be written over.
  void releaseAll();

 private:
  unsigned char* fBase = nullptr;
  std::size_t fBytes = 0;
  std::size_t fCapacity = 0;
  std::uint64_t fSeenEnd = 0;  // the end of the latest binary resolved
};

}  // namespace net
}  // namespace OX
