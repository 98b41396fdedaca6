// The broker host: the listener thread and the glue of the parts; see oxbrokerhost.h.
#include "oxbrokerhost.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <set>
#include <vector>
#include <zmq.hpp>

#include "kilog.h"
#include "oxbounds.h"
#include "oxerror.h"
#include "oxhostlog.h"
#include "oxlocalcalls.h"
#include "oxrequests.h"
#include "oxscheduler.h"
#include "oxsessions.h"
#include "oxsharedmemory.h"
#include "oxzap.h"

namespace OX {

using namespace net;

namespace {

using Clock = std::chrono::steady_clock;

// After a connection closes, its session is looked for at these delays (ms): ZeroMQ lets the
// identity go only once the connection's last messages have been read, a few steps later.
constexpr int kSweepDelaysMs[] = {5, 20, 80, 320, 1280, 3000};
constexpr int kSweeps = sizeof(kSweepDelaysMs) / sizeof(kSweepDelaysMs[0]);
// The leader reads at most this many requests before it lets the threads take their turns.
constexpr int kBurst = 64;
// How long the leader waits for a request before it looks at held lanes and sweeps again.
constexpr int kLeadWaitMs = 50;
// Hello, bye and ping of a connection with nothing else in flight are answered by the leader
// itself, if they are this small: a client's hello never waits for a busy thread.
constexpr std::size_t kInlineBytes = 4096;
// Identities of closed connections remembered, so that their late messages make no session.
constexpr std::size_t kGoneRemembered = 4096;
// Messages beyond twice the in-flight bound that ZeroMQ may hold for one connection.
constexpr int kSendSlack = 16;
// How long the closing socket may still spend sending the last replies.
constexpr int kClosingLingerMs = 500;

enum class Delivery { kSent, kFull, kGone };

// A reply and the bytes charged for it, released together when ZeroMQ has written the reply.
struct HeldReply {
  OXValue fValue;
  Reservation fBytes;
};

// A reply frame that keeps its encoded value alive until ZeroMQ has sent it, so that large
// binaries go out without being copied.
zmq::message_t borrowedFrame(const OXValue::Binary& pBytes,
                             const boost::shared_ptr<const OXValue>& pOwner) {
  auto* keep = new boost::shared_ptr<const OXValue>(pOwner);
  return zmq::message_t(
      const_cast<unsigned char*>(pBytes.data()), pBytes.size(),
      [](void*, void* pHint) { delete static_cast<boost::shared_ptr<const OXValue>*>(pHint); },
      keep);
}

// Whether a process listens on the Unix socket file pPath. ZeroMQ removes an existing file before
// it binds, which would take the address away from a broker that still serves there.
bool unixSocketInUse(const std::string& pPath) {
  sockaddr_un address{};
  if (pPath.size() >= sizeof(address.sun_path)) return false;  // ZeroMQ refuses it itself
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, pPath.c_str(), pPath.size() + 1);
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  const bool answered =
      connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(probe);
  return answered;
}

// How ZeroMQ describes the peer that sent pFrame: an IP address, or an ipc peer's credentials.
std::string peerOf(const zmq::message_t& pFrame) {
  const char* address = zmq_msg_gets(pFrame.handle(), "Peer-Address");
  return address != nullptr ? std::string(address) : std::string();
}

std::vector<wire::FrameView> viewsOf(const std::vector<zmq::message_t>& pFrames) {
  std::vector<wire::FrameView> views;
  views.reserve(pFrames.size());
  for (const zmq::message_t& frame : pFrames) views.push_back({frame.data(), frame.size()});
  return views;
}

}  // namespace

class OXBrokerHost::Impl {
 public:
  Impl(boost::shared_ptr<OXBroker> pBroker, const Options& pOptions);
  ~Impl() {
    stop();
    if (fWakeFd >= 0) ::close(fWakeFd);  // a start that failed after the sockets were open
  }
  void start();
  void stop();
  net::HostStatus status() const;
  // Serves one request of a session, whichever way it came (ZeroMQ or the session's Unix
  // connection): runs it, encodes the reply (its large binaries in the session's area), hands it
  // to pSend to go out, and counts it in the metrics. pReply keeps the reply's value, which the
  // encoded frames point into.
  void serveRequest(const std::string& pRoutingId, const std::vector<wire::FrameView>& pFrames,
                    std::size_t pRequestBytes, int pId, const std::string& pPeer, OXValue& pReply,
                    const LocalCalls::Writer& pSend);
  // Encodes a reply of the session (its large binaries in its area); returns its bytes.
  std::size_t encodeFor(const std::string& pRoutingId, int pId, OXValue& pReply,
                        wire::Encoded& pEncoded);
  std::string fUrl;
  std::string fIpcUrl;

 private:
  class HostWorker;
  void openSockets();
  void startParts();
  // The leader's side (one thread at a time, see oxscheduler.h).
  void lead(bool pMayWait);
  void receive();
  bool readMessage(std::string& pRoutingId, std::vector<zmq::message_t>& pFrames,
                   FrameTally& pTally);
  void admit(const std::string& pRoutingId, std::vector<zmq::message_t>&& pFrames,
             const FrameTally& pTally);
  bool servedInline(const std::string& pRoutingId, const std::vector<zmq::message_t>& pFrames,
                    const wire::RequestStart& pStart);
  void watchConnections();
  void sweepIfDue();
  // Any thread, fSocketMutex held.
  void sendReply(const std::string& pRoutingId, std::vector<zmq::message_t>& pFrames);
  void answer(const std::string& pRoutingId, int pId, const OXError& pError);
  Delivery deliver(const std::string& pRoutingId, std::vector<zmq::message_t>& pFrames);
  void connectionGone(const std::string& pRoutingId);
  bool cameBack(const std::string& pRoutingId);
  void wakeLeaderIfReadable();
  void wakeLeader();

  boost::shared_ptr<OXBroker> fBroker;
  Options fOptions;
  HostLimits fLimits;
  zmq::context_t fContext;
  std::string fMonitorEndpoint;
  // ZeroMQ sockets are not thread-safe: every thread uses the ROUTER socket, and the record of
  // gone connections, under this mutex. It comes before the scheduler's own.
  std::mutex fSocketMutex;
  std::unique_ptr<zmq::socket_t> fFrontend;   // made in start()
  int fFrontendFd = -1;                       // ZeroMQ's descriptor of it: edge-triggered
  int fWakeFd = -1;                           // an eventfd that wakes the leader
  std::unique_ptr<zmq::socket_t> fMonitorIn;  // the leader's
  std::unique_ptr<ZapHandler> fZap;           // with CURVE only
  std::unique_ptr<Housekeeper> fHousekeeper;
  std::unique_ptr<SharedAreas> fAreas;
  std::unique_ptr<SessionTable> fSessions;
  std::unique_ptr<RequestHandler> fHandler;
  std::unique_ptr<Scheduler> fScheduler;
  std::unique_ptr<LocalCalls> fCalls;
  mutable HostMetrics fMetrics;  // callRate keeps its sample
  const Clock::time_point fCreated = Clock::now();

  std::atomic<bool> fStopping{false};  // no more requests are read
  bool fStarted = false;

  // Under fSocketMutex.
  std::set<std::string> fGone;
  std::deque<std::string> fGoneOrder;
  // The leader's (handed on with the lead, under the scheduler's mutex).
  bool fMayBeReadable = true;  // the frontend may hold a request: read before waiting
  int fSweep = kSweeps;        // the next sweep of the current schedule; kSweeps: none due
  Clock::time_point fSweepStart;
  std::string fProbe;  // [1, 0, "ping", nil]: asks whether a connection is still there
};

// A thread's side: serves a request and sends its reply itself; leads when its turn comes.
class OXBrokerHost::Impl::HostWorker : public Scheduler::Worker {
 public:
  explicit HostWorker(Impl& pHost) : fHost(pHost) {}
  void serve(Job& pJob) override {
    std::size_t requestBytes = 0;
    for (const zmq::message_t& frame : pJob.fFrames) requestBytes += frame.size();
    auto held = boost::make_shared<HeldReply>();
    fHost.serveRequest(pJob.fRoutingId, viewsOf(pJob.fFrames), requestBytes, pJob.fId,
                       pJob.fFrames.empty() ? "" : peerOf(pJob.fFrames[0]), held->fValue,
                       [&](const wire::Encoded& pEncoded, std::size_t pBytes) {
                         pJob.fFrames.clear();  // the decoded request holds its own copy
                         send(pJob, held, pEncoded, pBytes);
                       });
  }
  void refuse(Job& pJob) override {
    auto held = boost::make_shared<HeldReply>();
    held->fValue =
        errorReply(pJob.fId, hostError("call", refusalText(fHost.fLimits, Refusal::kStopping)));
    wire::Encoded encoded;
    const std::size_t bytes = fHost.encodeFor(pJob.fRoutingId, pJob.fId, held->fValue, encoded);
    send(pJob, held, encoded, bytes);
  }
  void lead(bool pMayWait) override { fHost.lead(pMayWait); }

 private:
  void send(Job& pJob, const boost::shared_ptr<HeldReply>& pHeld, const wire::Encoded& pEncoded,
            std::size_t pBytes) {
    // Charged to the connection until ZeroMQ has written the reply: a client that does not read
    // its replies is held back once they reach its bound.
    pHeld->fBytes = Reservation(pJob.fConnection, pJob.fHost, pBytes);
    const boost::shared_ptr<const OXValue> owner(pHeld, &pHeld->fValue);
    std::vector<zmq::message_t> frames;
    frames.reserve(1 + pEncoded.fFrames.size());
    frames.emplace_back(pEncoded.fHeader.data(), pEncoded.fHeader.size());
    for (const OXValue::Binary* frame : pEncoded.fFrames) {
      frames.push_back(borrowedFrame(*frame, owner));
    }
    std::lock_guard<std::mutex> guard(fHost.fSocketMutex);
    fHost.sendReply(pJob.fRoutingId, frames);
  }

  Impl& fHost;
};

void OXBrokerHost::Impl::serveRequest(const std::string& pRoutingId,
                                      const std::vector<wire::FrameView>& pFrames,
                                      std::size_t pRequestBytes, int pId, const std::string& pPeer,
                                      OXValue& pReply, const LocalCalls::Writer& pSend) {
  const Clock::time_point start = Clock::now();
  RequestHandler::Served served;
  pReply = fHandler->handle(pRoutingId, pFrames, pPeer, &served);
  const bool failed = pReply[2].asString() == "error";
  wire::Encoded encoded;
  const std::size_t replyBytes = encodeFor(pRoutingId, pId, pReply, encoded);
  pSend(encoded, replyBytes);
  if (served.fOperation == "call") {
    fMetrics.record(served.fModule, served.fMethod, failed, pRequestBytes, replyBytes,
                    Clock::now() - start);
  }
}

std::size_t OXBrokerHost::Impl::encodeFor(const std::string& pRoutingId, int pId, OXValue& pReply,
                                          wire::Encoded& pEncoded) {
  // A session on this machine may have its large binaries placed in its shared area.
  const std::shared_ptr<SharedArea> area = fSessions->area(pRoutingId);
  encodeReply(pId, pReply, pEncoded, area.get());
  std::size_t bytes = pEncoded.fHeader.size();
  for (const OXValue::Binary* frame : pEncoded.fFrames) bytes += frame->size();
  return bytes;
}

OXBrokerHost::Impl::Impl(boost::shared_ptr<OXBroker> pBroker, const Options& pOptions)
    : fBroker(pBroker), fOptions(pOptions), fContext(1) {
  fLimits.fMaxMessageBytes = pOptions.fMaxMessageBytes;
  fLimits.fMaxFrames = std::max(1, pOptions.fMaxFrames);
  fLimits.fMaxInFlight = std::max(1, pOptions.fMaxInFlight);
  fLimits.fMaxSessionBytes = pOptions.fMaxSessionBytes;
  fLimits.fMaxQueuedBytes = pOptions.fMaxQueuedBytes;
  fLimits.fMaxSessions = std::max(1, pOptions.fMaxSessions);
  // An area is at most what one connection may hold, and at most 1 GiB.
  fLimits.fAreaBytes = std::min({pOptions.fSharedAreaBytes, pOptions.fMaxSessionBytes,
                                 pOptions.fMaxSharedAreaBytes, std::size_t(1) << 30});
  fLimits.fMaxAreaBytes = pOptions.fMaxSharedAreaBytes;
  const std::string tag = std::to_string(reinterpret_cast<std::uintptr_t>(this));
  fMonitorEndpoint = "inproc://oxbrokerhost-monitor-" + tag;
  wire::Encoded probe;
  wire::encode(OXValue::array({wire::kProtocolVersion, 0, "ping", OXValue()}), probe);
  fProbe = probe.fHeader;
}

void OXBrokerHost::Impl::openSockets() {
  fFrontend.reset(new zmq::socket_t(fContext, zmq::socket_type::router));
  fFrontend->set(zmq::sockopt::linger, 0);
  const bool curve = !fOptions.fCurveSecretKey.empty();
  if (curve) {
    // The handler is there before the first connection, which it must judge.
    fZap.reset(new ZapHandler(fContext, fOptions.fAllowedClientKeys));
    serveCurve(*fFrontend, fOptions.fCurveSecretKey);
  }
  const int heartbeat = std::max(50, fOptions.fHeartbeatTimeoutMs);
  fFrontend->set(zmq::sockopt::heartbeat_ivl, std::max(25, heartbeat / 3));
  fFrontend->set(zmq::sockopt::heartbeat_timeout, heartbeat);
  // A single frame over the message limit can never be a valid request: ZeroMQ closes its
  // connection before it allocates it.
  fFrontend->set(zmq::sockopt::maxmsgsize, static_cast<int64_t>(fLimits.fMaxMessageBytes));
  // ZeroMQ holds no more for a connection than the host lets it have in flight. Its sending side
  // learns of the replies read only in batches of half the mark, so the mark leaves room for the
  // replies of every request in flight twice over, plus refusals and probes: a client that reads
  // never loses a reply, one that does not read loses the ones past the mark.
  fFrontend->set(zmq::sockopt::sndhwm, 2 * fLimits.fMaxInFlight + kSendSlack);
  fFrontend->set(zmq::sockopt::rcvhwm, fLimits.fMaxInFlight);
  // Sending to a connection that is gone fails instead of vanishing: that is how sessions end.
  fFrontend->set(zmq::sockopt::router_mandatory, true);
  const int events = ZMQ_EVENT_DISCONNECTED | (curve ? kHandshakeFailedEvents : 0);
  if (zmq_socket_monitor(fFrontend->handle(), fMonitorEndpoint.c_str(), events) != 0) {
    throw hostError("start", std::string("cannot watch connections: ") + zmq_strerror(zmq_errno()));
  }
  fMonitorIn.reset(new zmq::socket_t(fContext, zmq::socket_type::pair));
  fMonitorIn->connect(fMonitorEndpoint);
  const std::string endpoint =
      "tcp://" + fOptions.fBindAddress + ":" +
      (fOptions.fPort == 0 ? std::string("*") : std::to_string(fOptions.fPort));
  std::string listening = endpoint;
  try {
    fFrontend->bind(endpoint);
    fUrl = fFrontend->get(zmq::sockopt::last_endpoint);
    if (!fOptions.fIpcPath.empty()) {
      listening = "ipc://" + fOptions.fIpcPath;
      if (unixSocketInUse(fOptions.fIpcPath)) throw zmq::error_t(EADDRINUSE);
      fFrontend->bind(listening);
      fIpcUrl = fFrontend->get(zmq::sockopt::last_endpoint);
    }
  } catch (const zmq::error_t& error) {
    fFrontend.reset();
    fMonitorIn.reset();
    fZap.reset();
    throw hostError("start", "cannot listen on " + listening + ": " + error.what());
  }
  fFrontendFd = fFrontend->get(zmq::sockopt::fd);
  fWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fWakeFd < 0) {
    const int error = errno;
    fFrontend.reset();
    fMonitorIn.reset();
    fZap.reset();
    throw hostError("start", std::string("cannot make an eventfd: ") + std::strerror(error));
  }
}

void OXBrokerHost::Impl::startParts() {
  fHousekeeper.reset(new Housekeeper(fBroker, !fOptions.fKeepSubscribers));
  fAreas.reset(new SharedAreas(fLimits.fAreaBytes, fLimits.fMaxAreaBytes));
  fAreas->start();
  fSessions.reset(new SessionTable(fLimits.fMaxSessions, [this](Farewell&& pFarewell) {
    fHousekeeper->post(std::move(pFarewell));
  }));
  // One thread more than the calls that may run at once: one always reads.
  fScheduler.reset(new Scheduler(fLimits, std::max(1, fOptions.fThreads) + 1, [this] {
    return std::unique_ptr<Scheduler::Worker>(new HostWorker(*this));
  }));
  if (fLimits.fAreaBytes > 0) {
    // A session's Unix connection lives as long as its area: at most one per area the host may
    // hold, each with a thread of its own (docs/robustness.md says why they bypass the lanes).
    const std::size_t areas = std::max<std::size_t>(1, fLimits.fMaxAreaBytes / fLimits.fAreaBytes);
    fCalls.reset(new LocalCalls(
        fLimits, fScheduler->hostBytes(), areas, std::max(50, fOptions.fHeartbeatTimeoutMs),
        [this](const std::string& pRoutingId, const std::vector<wire::FrameView>& pFrames,
               std::size_t pBytes, int pId, const std::string& pPeer,
               const LocalCalls::Writer& pWrite) {
          OXValue reply;
          serveRequest(pRoutingId, pFrames, pBytes, pId, pPeer, reply, pWrite);
        },
        [this](const std::string& pRoutingId, const SharedArea* pArea) {
          return fSessions->area(pRoutingId).get() == pArea;
        }));
    fCalls->start();
  }
  fHandler.reset(new RequestHandler(fBroker, *fSessions, fLimits.fMaxMessageBytes,
                                    fOptions.fAllowRemoteEvents, fAreas.get(), fCalls.get()));
}

void OXBrokerHost::Impl::start() {
  openSockets();
  startParts();
  fStarted = true;
  fScheduler->start();
}

void OXBrokerHost::Impl::stop() {
  if (!fStarted) return;
  fStarted = false;
  fStopping = true;
  wakeLeader();
  // The same for the calls of the Unix connections, which then close.
  if (fCalls) fCalls->stop();
  // Queued requests are answered as not served, running calls end and send their replies.
  fScheduler->stop();
  fHousekeeper->stop();
  fAreas->stop();
  fFrontend->set(zmq::sockopt::linger, kClosingLingerMs);
  fFrontend.reset();
  // ZeroMQ leaves the socket file behind; nothing listens there any more.
  if (!fIpcUrl.empty()) ::unlink(fOptions.fIpcPath.c_str());
  fMonitorIn.reset();
  fZap.reset();
  ::close(fWakeFd);
  fWakeFd = -1;
}

void OXBrokerHost::Impl::lead(bool pMayWait) {
  if (fStopping) {
    // Nothing more is read; the scheduler ends the lead at once as it stops.
    pollfd wake{fWakeFd, POLLIN, 0};
    (void)::poll(&wake, 1, 1);
    return;
  }
  if (pMayWait && !fMayBeReadable) {
    auto wait = std::chrono::milliseconds(kLeadWaitMs);
    if (fSweep < kSweeps) {
      const auto due = fSweepStart + std::chrono::milliseconds(kSweepDelaysMs[fSweep]);
      wait = std::clamp(std::chrono::duration_cast<std::chrono::milliseconds>(due - Clock::now()),
                        std::chrono::milliseconds(1), wait);
    }
    // ZeroMQ's descriptor only says that something changed (it is edge-triggered): whoever
    // sends or reads on the socket wakes the leader if a request is waiting (see
    // wakeLeaderIfReadable), and the socket is read until empty below.
    zmq::pollitem_t items[] = {{nullptr, fFrontendFd, ZMQ_POLLIN, 0},
                               {nullptr, fWakeFd, ZMQ_POLLIN, 0},
                               {fMonitorIn->handle(), 0, ZMQ_POLLIN, 0}};
    zmq::poll(items, 3, wait);
    if ((items[1].revents & ZMQ_POLLIN) != 0) {
      std::uint64_t count = 0;
      (void)!::read(fWakeFd, &count, sizeof(count));
    }
  }
  {
    std::lock_guard<std::mutex> guard(fSocketMutex);
    if (!fStopping) receive();
    watchConnections();
    sweepIfDue();
    fMayBeReadable = (fFrontend->get(zmq::sockopt::events) & ZMQ_POLLIN) != 0;
  }
  fScheduler->resume();
}

void OXBrokerHost::Impl::receive() {
  for (int i = 0; i < kBurst; ++i) {
    std::string routingId;
    std::vector<zmq::message_t> frames;
    FrameTally tally(fLimits);
    if (!readMessage(routingId, frames, tally)) return;
    admit(routingId, std::move(frames), tally);
  }
}

bool OXBrokerHost::Impl::readMessage(std::string& pRoutingId, std::vector<zmq::message_t>& pFrames,
                                     FrameTally& pTally) {
  zmq::message_t first;
  if (!fFrontend->recv(first, zmq::recv_flags::dontwait)) return false;
  pRoutingId = first.to_string();
  bool more = first.more();
  while (more) {
    zmq::message_t frame;
    (void)fFrontend->recv(frame);  // the rest of a message has arrived with its first frame
    more = frame.more();
    // Past a bound only the header is kept, for the refusal's id.
    if (pTally.add(frame.size()) || pFrames.empty()) {
      pFrames.push_back(std::move(frame));
    } else if (pFrames.size() > 1) {
      pFrames.resize(1);
    }
  }
  return true;
}

void OXBrokerHost::Impl::admit(const std::string& pRoutingId, std::vector<zmq::message_t>&& pFrames,
                               const FrameTally& pTally) {
  if (fGone.count(pRoutingId) != 0 && !cameBack(pRoutingId)) return;
  if (pFrames.empty()) {
    answer(pRoutingId, -1, hostError("decode", "malformed message: no frames"));
    return;
  }
  const wire::RequestStart start = wire::peekRequest({pFrames[0].data(), pFrames[0].size()});
  if (pTally.over()) {
    answer(pRoutingId, start.fId, hostError("decode", pTally.refusal()));
    return;
  }
  if (servedInline(pRoutingId, pFrames, start)) return;
  Job job;
  job.fRoutingId = pRoutingId;
  job.fFrames = std::move(pFrames);
  job.fId = start.fId;
  const Refusal refusal = fScheduler->submit(std::move(job), pTally.bytes());
  if (refusal != Refusal::kNone) {
    answer(pRoutingId, start.fId, hostError("call", refusalText(fLimits, refusal)));
  }
}

bool OXBrokerHost::Impl::servedInline(const std::string& pRoutingId,
                                      const std::vector<zmq::message_t>& pFrames,
                                      const wire::RequestStart& pStart) {
  const std::string& op = pStart.fOperation;
  if (pFrames.size() != 1 || pFrames[0].size() > kInlineBytes ||
      (op != "hello" && op != "bye" && op != "ping") || !fScheduler->idle(pRoutingId)) {
    return false;
  }
  OXValue reply = fHandler->handle(pRoutingId, viewsOf(pFrames), peerOf(pFrames[0]));
  wire::Encoded encoded;
  encodeReply(pStart.fId, reply, encoded);
  std::vector<zmq::message_t> frames;
  frames.emplace_back(encoded.fHeader.data(), encoded.fHeader.size());
  if (deliver(pRoutingId, frames) == Delivery::kGone) connectionGone(pRoutingId);
  return true;
}

void OXBrokerHost::Impl::sendReply(const std::string& pRoutingId,
                                   std::vector<zmq::message_t>& pFrames) {
  const Delivery delivery =
      fGone.count(pRoutingId) != 0 ? Delivery::kGone : deliver(pRoutingId, pFrames);
  fScheduler->replied(pRoutingId);
  if (delivery == Delivery::kGone) {
    connectionGone(pRoutingId);
  } else if (delivery == Delivery::kFull) {
    ki::log::LogStream(kLogVerbose, kLogCategory, "", "sendReply", 0)
        << "a reply was dropped: its client has " << fLimits.fMaxInFlight << " unread";
  }
  wakeLeaderIfReadable();
}

void OXBrokerHost::Impl::wakeLeaderIfReadable() {
  // A send may have taken in ZeroMQ's news of a request, and with it the edge of its descriptor
  // that the leader waits for.
  if ((fFrontend->get(zmq::sockopt::events) & ZMQ_POLLIN) != 0) wakeLeader();
}

void OXBrokerHost::Impl::wakeLeader() {
  const std::uint64_t one = 1;
  (void)!::write(fWakeFd, &one, sizeof(one));
}

void OXBrokerHost::Impl::answer(const std::string& pRoutingId, int pId, const OXError& pError) {
  OXValue reply = errorReply(pId, pError);
  wire::Encoded encoded;
  wire::encode(reply, encoded);
  std::vector<zmq::message_t> frames;
  frames.emplace_back(encoded.fHeader.data(), encoded.fHeader.size());
  if (deliver(pRoutingId, frames) == Delivery::kGone) connectionGone(pRoutingId);
}

Delivery OXBrokerHost::Impl::deliver(const std::string& pRoutingId,
                                     std::vector<zmq::message_t>& pFrames) {
  const auto more = zmq::send_flags::sndmore | zmq::send_flags::dontwait;
  try {
    // A client that stopped reading loses its replies; nobody else waits for it.
    if (!fFrontend->send(zmq::buffer(pRoutingId), more)) return Delivery::kFull;
  } catch (const zmq::error_t& error) {
    if (error.num() == EHOSTUNREACH) return Delivery::kGone;
    throw;
  }
  for (std::size_t i = 0; i < pFrames.size(); ++i) {
    (void)fFrontend->send(pFrames[i], i + 1 == pFrames.size() ? zmq::send_flags::dontwait : more);
  }
  return Delivery::kSent;
}

void OXBrokerHost::Impl::watchConnections() {
  while (true) {
    zmq::message_t event;
    if (!fMonitorIn->recv(event, zmq::recv_flags::dontwait)) return;
    zmq::message_t address;
    if (event.more()) (void)fMonitorIn->recv(address);
    // [event: 16 bits, value: 32 bits]; a refused handshake made no session to look for.
    uint16_t id = 0;
    uint32_t value = 0;
    if (event.size() >= sizeof(id) + sizeof(value)) {
      std::memcpy(&id, event.data(), sizeof(id));
      std::memcpy(&value, static_cast<const char*>(event.data()) + sizeof(id), sizeof(value));
    }
    if ((id & kHandshakeFailedEvents) != 0) {
      logHandshakeFailure(id, value);
      continue;
    }
    // Some connection closed. The event does not say whose (only a descriptor, which the system
    // reuses), so every session is asked again, on a schedule that outlasts ZeroMQ's own steps.
    fSweep = 0;
    fSweepStart = Clock::now();
  }
}

void OXBrokerHost::Impl::sweepIfDue() {
  if (fSweep >= kSweeps ||
      Clock::now() < fSweepStart + std::chrono::milliseconds(kSweepDelaysMs[fSweep])) {
    return;
  }
  ++fSweep;
  for (const std::string& routingId : fSessions->routingIds()) {
    std::vector<zmq::message_t> probe;
    probe.emplace_back(fProbe.data(), fProbe.size());
    if (deliver(routingId, probe) == Delivery::kGone) connectionGone(routingId);
  }
}

// A message of an identity found gone is a late one of the closed connection, and makes nothing;
// unless a new connection took the identity (a client may choose its own), which a probe tells:
// ZeroMQ gives an identity to a new connection only once the old one has let it go.
bool OXBrokerHost::Impl::cameBack(const std::string& pRoutingId) {
  std::vector<zmq::message_t> probe;
  probe.emplace_back(fProbe.data(), fProbe.size());
  if (deliver(pRoutingId, probe) == Delivery::kGone) return false;
  fGone.erase(pRoutingId);
  fGoneOrder.erase(std::find(fGoneOrder.begin(), fGoneOrder.end(), pRoutingId));
  return true;
}

void OXBrokerHost::Impl::connectionGone(const std::string& pRoutingId) {
  if (!fGone.insert(pRoutingId).second) return;
  fGoneOrder.push_back(pRoutingId);
  if (fGoneOrder.size() > kGoneRemembered) {
    fGone.erase(fGoneOrder.front());
    fGoneOrder.pop_front();
  }
  // The session ends after its running call, if any: what that call subscribed is cleaned too.
  SessionTable& sessions = *fSessions;
  fScheduler->retire(pRoutingId, [&sessions, pRoutingId] {
    sessions.end(pRoutingId, "disconnected or stopped answering");
  });
}

OXBrokerHost::OXBrokerHost(boost::shared_ptr<OXBroker> pBroker, const Options& pOptions)
    : fImpl(new Impl(pBroker, pOptions)) {}

OXBrokerHost::~OXBrokerHost() {
  stop();
}

void OXBrokerHost::start() {
  fImpl->start();
}

void OXBrokerHost::stop() {
  fImpl->stop();
}

std::string OXBrokerHost::getUrl() const {
  return fImpl->fUrl;
}

std::string OXBrokerHost::getIpcUrl() const {
  return fImpl->fIpcUrl;
}

net::HostStatus OXBrokerHost::getStatus() const {
  return fImpl->status();
}

net::HostStatus OXBrokerHost::Impl::status() const {
  HostStatus status;
  status.fUrl = fUrl;
  status.fUptimeSeconds = std::chrono::duration<double>(Clock::now() - fCreated).count();
  status.fWorkers = fOptions.fThreads;
  status.fMaxSessions = fLimits.fMaxSessions;
  status.fCalls = fMetrics.calls();
  status.fCallRate = fMetrics.callRate();
  status.fMethods = fMetrics.methods();
  if (fScheduler) fScheduler->load(status.fQueued, status.fRunning);
  if (fCalls) status.fRunning += fCalls->running();
  if (fSessions) status.fSessions = fSessions->list();
  return status;
}

}  // namespace OX
