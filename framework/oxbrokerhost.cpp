// The broker host: one listener thread, a pool of workers. See oxbrokerhost.h.
#include "oxbrokerhost.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>
#include <zmq.hpp>

#include "kilog.h"
#include "oxerror.h"
#include "oxproxies.h"

namespace OX {

namespace {

const char* const kHostFile = "framework/oxbrokerhost";
const char* const kCategory = "framework.oxbrokerhost";

// The first frame a worker hands back to the listener says what the request did to its session.
enum class SessionEffect : char { kNone = 'n', kHello = 'h', kBye = 'b' };

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

// Takes the result over: an image's pixels are not copied again on their way out.
OXValue okReply(int pId, OXValue&& pResult) {
  OXValue::Array reply;
  reply.reserve(4);
  reply.emplace_back(wire::kProtocolVersion);
  reply.emplace_back(pId);
  reply.emplace_back("ok");
  reply.push_back(std::move(pResult));
  return OXValue(std::move(reply));
}

OXValue errorReply(int pId, const OXError& pError) {
  return OXValue::array(
      {wire::kProtocolVersion, pId, "error",
       wire::errorToValue(pError.getModuleName(), pError.getFunctionName(), pError.getDescription(),
                          pError.getFileName(), pError.getLine())});
}

[[noreturn]] void refuse(const std::string& pOperation, const std::string& pDescription) {
  throw OXError("OXBroker", pOperation, pDescription, kHostFile, 0);
}

const std::string& operandString(const OXValue& pHeader, int pIndex, const std::string& pOp) {
  if (pHeader.getSize() <= pIndex || !pHeader[pIndex].isString()) {
    refuse(pOp, "operand " + std::to_string(pIndex - 3) + " of " + pOp + " must be a string");
  }
  return pHeader[pIndex].asString();
}

struct Job {
  enum Kind { kRequest, kDisconnected } fKind = kRequest;
  std::string fRoutingId;  // kRequest: whom to answer; kDisconnected: the client's name
  std::vector<zmq::message_t> fFrames;
};

struct Session {
  std::string fName;  // empty until hello
  std::uint64_t fConnection = 0;
  int fInFlight = 0;
};

}  // namespace

class OXBrokerHost::Impl {
 public:
  Impl(boost::shared_ptr<OXBroker> pBroker, const Options& pOptions)
      : fBroker(pBroker), fOptions(pOptions), fContext(1) {
    const std::string tag = std::to_string(reinterpret_cast<std::uintptr_t>(this));
    fRepliesEndpoint = "inproc://oxbrokerhost-replies-" + tag;
    fMonitorEndpoint = "inproc://oxbrokerhost-monitor-" + tag;
  }

  void start();
  void stop();
  std::string fUrl;

 private:
  void listen();
  void work();
  void serveRequest(Job& pJob, zmq::socket_t& pReplies);
  OXValue runOperation(const OXValue& pHeader, SessionEffect& pEffect, std::string& pHelloName);
  void raiseDisconnected(const std::string& pName);

  // Listener side.
  void readMonitor(zmq::socket_t& pMonitor);
  void endConnection(std::uint64_t pConnection, const char* pReason);
  void endSession(const std::string& pRoutingId, const char* pReason);
  void answerNow(zmq::socket_t& pFrontend, const std::string& pRoutingId, const OXError& pError);
  void enqueue(Job&& pJob);

  boost::shared_ptr<OXBroker> fBroker;
  Options fOptions;
  zmq::context_t fContext;
  std::string fRepliesEndpoint;
  std::string fMonitorEndpoint;
  std::unique_ptr<zmq::socket_t> fFrontend;  // made in start(), then used by the listener only
  std::unique_ptr<zmq::socket_t> fRepliesIn;
  std::unique_ptr<zmq::socket_t> fMonitorIn;

  std::atomic<bool> fStopping{false};
  bool fStarted = false;
  std::thread fListener;
  std::vector<std::thread> fWorkers;

  std::mutex fQueueMutex;
  std::condition_variable fQueueReady;
  std::deque<Job> fQueue;
  bool fQueueClosed = false;

  // Owned by the listener thread.
  std::map<std::string, Session> fSessions;       // by routing id
  std::map<int, std::uint64_t> fConnectionsByFd;  // socket descriptor -> connection number
  std::uint64_t fNextConnection = 1;
};

void OXBrokerHost::Impl::start() {
  fFrontend.reset(new zmq::socket_t(fContext, zmq::socket_type::router));
  fFrontend->set(zmq::sockopt::linger, 0);
  const int heartbeat = std::max(50, fOptions.fHeartbeatTimeoutMs);
  fFrontend->set(zmq::sockopt::heartbeat_ivl, std::max(25, heartbeat / 3));
  fFrontend->set(zmq::sockopt::heartbeat_timeout, heartbeat);
  // Frames beyond this are cut off by the transport itself; below it, the decoder answers with
  // an error instead.
  fFrontend->set(zmq::sockopt::maxmsgsize,
                 static_cast<int64_t>(fOptions.fMaxMessageBytes) * 2 + (1 << 20));
  if (zmq_socket_monitor(fFrontend->handle(), fMonitorEndpoint.c_str(),
                         ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED) != 0) {
    refuse("start", std::string("cannot watch connections: ") + zmq_strerror(zmq_errno()));
  }
  fMonitorIn.reset(new zmq::socket_t(fContext, zmq::socket_type::pair));
  fMonitorIn->connect(fMonitorEndpoint);
  fRepliesIn.reset(new zmq::socket_t(fContext, zmq::socket_type::pull));
  fRepliesIn->bind(fRepliesEndpoint);
  const std::string endpoint =
      "tcp://" + fOptions.fBindAddress + ":" +
      (fOptions.fPort == 0 ? std::string("*") : std::to_string(fOptions.fPort));
  try {
    fFrontend->bind(endpoint);
  } catch (const zmq::error_t& error) {
    fFrontend.reset();
    fRepliesIn.reset();
    fMonitorIn.reset();
    refuse("start", "cannot listen on " + endpoint + ": " + error.what());
  }
  fUrl = fFrontend->get(zmq::sockopt::last_endpoint);
  fStarted = true;
  for (int i = 0; i < std::max(1, fOptions.fThreads); ++i)
    fWorkers.emplace_back([this] { work(); });
  fListener = std::thread([this] { listen(); });
}

void OXBrokerHost::Impl::stop() {
  if (!fStarted) return;
  fStarted = false;
  {
    std::lock_guard<std::mutex> guard(fQueueMutex);
    fQueueClosed = true;
  }
  fQueueReady.notify_all();
  // Workers first: the listener still forwards the replies of the calls they finish.
  for (std::thread& worker : fWorkers) worker.join();
  fWorkers.clear();
  fStopping = true;
  fListener.join();
  fFrontend.reset();
  fRepliesIn.reset();
  fMonitorIn.reset();
}

void OXBrokerHost::Impl::enqueue(Job&& pJob) {
  {
    std::lock_guard<std::mutex> guard(fQueueMutex);
    fQueue.push_back(std::move(pJob));
  }
  fQueueReady.notify_one();
}

void OXBrokerHost::Impl::answerNow(zmq::socket_t& pFrontend, const std::string& pRoutingId,
                                   const OXError& pError) {
  wire::Encoded encoded;
  wire::encode(errorReply(-1, pError), encoded);
  pFrontend.send(zmq::buffer(pRoutingId), zmq::send_flags::sndmore);
  pFrontend.send(zmq::buffer(encoded.fHeader), zmq::send_flags::dontwait);
}

void OXBrokerHost::Impl::listen() {
  zmq::socket_t& frontend = *fFrontend;
  zmq::socket_t& replies = *fRepliesIn;
  zmq::socket_t& monitor = *fMonitorIn;
  std::vector<zmq::pollitem_t> items = {{frontend.handle(), 0, ZMQ_POLLIN, 0},
                                        {replies.handle(), 0, ZMQ_POLLIN, 0},
                                        {monitor.handle(), 0, ZMQ_POLLIN, 0}};
  while (!fStopping) {
    zmq::poll(items, std::chrono::milliseconds(50));
    // Connection events first, so that a request is never matched to a descriptor that the
    // system has already given to a newer connection.
    readMonitor(monitor);
    if (items[1].revents & ZMQ_POLLIN) {
      while (true) {
        std::vector<zmq::message_t> frames;
        zmq::message_t frame;
        if (!replies.recv(frame, zmq::recv_flags::dontwait)) break;
        frames.push_back(std::move(frame));
        while (frames.back().more()) {
          zmq::message_t next;
          (void)replies.recv(next);
          frames.push_back(std::move(next));
        }
        // [routing id][effect + hello name][header][binaries...]
        const std::string routingId = frames[0].to_string();
        const std::string effect = frames[1].to_string();
        auto session = fSessions.find(routingId);
        if (session != fSessions.end()) {
          --session->second.fInFlight;
          if (effect[0] == static_cast<char>(SessionEffect::kHello)) {
            session->second.fName = effect.substr(1);
          }
        }
        for (std::size_t i = 0; i < frames.size(); ++i) {
          if (i == 1) continue;
          const bool last = i + 1 == frames.size();
          // A client that stopped reading loses its replies; nobody else waits for it.
          (void)frontend.send(frames[i],
                              last ? zmq::send_flags::dontwait
                                   : zmq::send_flags::sndmore | zmq::send_flags::dontwait);
        }
        if (effect[0] == static_cast<char>(SessionEffect::kBye))
          endSession(routingId, "said goodbye");
      }
    }
    if (items[0].revents & ZMQ_POLLIN) {
      for (int burst = 0; burst < 64; ++burst) {
        Job job;
        zmq::message_t frame;
        if (!frontend.recv(frame, zmq::recv_flags::dontwait)) break;
        job.fRoutingId = frame.to_string();
        std::size_t bytes = 0;
        bool tooLarge = false;
        int fd = -1;
        bool more = frame.more();
        while (more) {
          zmq::message_t next;
          (void)frontend.recv(next);
          more = next.more();
          if (fd < 0) fd = next.get(ZMQ_SRCFD);
          bytes += next.size();
          // Past the limit the rest of the message is read but not kept.
          if (bytes > fOptions.fMaxMessageBytes) {
            tooLarge = true;
            job.fFrames.clear();
          }
          if (!tooLarge) job.fFrames.push_back(std::move(next));
        }
        // Connection events may end sessions: read them before holding a reference into the
        // table.
        if (fd >= 0) readMonitor(monitor);
        Session& session = fSessions[job.fRoutingId];
        if (session.fConnection == 0 && fd >= 0) {
          auto known = fConnectionsByFd.find(fd);
          if (known != fConnectionsByFd.end()) session.fConnection = known->second;
        }
        if (job.fFrames.empty() && !tooLarge) {
          answerNow(frontend, job.fRoutingId,
                    OXError("OXBroker", "decode", "malformed message: no frames", kHostFile, 0));
          continue;
        }
        if (tooLarge) {
          answerNow(frontend, job.fRoutingId,
                    OXError("OXBroker", "decode",
                            "message too large: more than " +
                                std::to_string(fOptions.fMaxMessageBytes) + " bytes",
                            kHostFile, 0));
          continue;
        }
        if (session.fInFlight >= fOptions.fMaxInFlight) {
          answerNow(frontend, job.fRoutingId,
                    OXError("OXBroker", "call",
                            "too many requests in flight: at most " +
                                std::to_string(fOptions.fMaxInFlight) + " per client",
                            kHostFile, 0));
          continue;
        }
        ++session.fInFlight;
        enqueue(std::move(job));
      }
    }
  }
}

void OXBrokerHost::Impl::readMonitor(zmq::socket_t& pMonitor) {
  while (true) {
    zmq::message_t event;
    if (!pMonitor.recv(event, zmq::recv_flags::dontwait)) return;
    zmq::message_t address;
    if (event.more()) (void)pMonitor.recv(address);
    if (event.size() < 6) continue;
    std::uint16_t kind;
    std::uint32_t value;
    std::memcpy(&kind, event.data(), 2);
    std::memcpy(&value, static_cast<const char*>(event.data()) + 2, 4);
    const int fd = static_cast<int>(value);
    if (kind == ZMQ_EVENT_ACCEPTED) {
      fConnectionsByFd[fd] = fNextConnection++;
    } else if (kind == ZMQ_EVENT_DISCONNECTED) {
      auto known = fConnectionsByFd.find(fd);
      if (known == fConnectionsByFd.end()) continue;
      const std::uint64_t connection = known->second;
      fConnectionsByFd.erase(known);
      endConnection(connection, "disconnected or stopped answering");
    }
  }
}

void OXBrokerHost::Impl::endConnection(std::uint64_t pConnection, const char* pReason) {
  std::vector<std::string> ended;
  for (const auto& entry : fSessions) {
    if (entry.second.fConnection == pConnection) ended.push_back(entry.first);
  }
  for (const std::string& routingId : ended) endSession(routingId, pReason);
}

void OXBrokerHost::Impl::endSession(const std::string& pRoutingId, const char* pReason) {
  auto session = fSessions.find(pRoutingId);
  if (session == fSessions.end()) return;
  const std::string name = session->second.fName;
  fSessions.erase(session);
  if (name.empty()) return;  // never introduced itself: nobody to tell about
  ki::log::LogStream(4, kCategory, "", "endSession", 0)
      << "client " << name << " " << pReason << "; raising ClientDisconnected";
  Job job;
  job.fKind = Job::kDisconnected;
  job.fRoutingId = name;
  enqueue(std::move(job));
}

void OXBrokerHost::Impl::work() {
  zmq::socket_t replies(fContext, zmq::socket_type::push);
  replies.set(zmq::sockopt::linger, 0);
  replies.connect(fRepliesEndpoint);
  while (true) {
    Job job;
    {
      std::unique_lock<std::mutex> guard(fQueueMutex);
      fQueueReady.wait(guard, [this] { return fQueueClosed || !fQueue.empty(); });
      if (fQueue.empty()) return;
      job = std::move(fQueue.front());
      fQueue.pop_front();
    }
    if (job.fKind == Job::kDisconnected) {
      raiseDisconnected(job.fRoutingId);
    } else {
      serveRequest(job, replies);
    }
  }
}

void OXBrokerHost::Impl::raiseDisconnected(const std::string& pName) {
  try {
    OXMemoryProxy(fBroker).raiseEvent("ClientDisconnected", OXValue(pName));
  } catch (const std::exception& error) {
    ki::log::LogStream(3, kCategory, "", "raiseDisconnected", 0)
        << "could not raise ClientDisconnected for " << pName << ": " << error.what();
  }
}

void OXBrokerHost::Impl::serveRequest(Job& pJob, zmq::socket_t& pReplies) {
  int id = -1;
  SessionEffect effect = SessionEffect::kNone;
  std::string helloName;
  auto reply = boost::shared_ptr<OXValue>(new OXValue());
  try {
    std::vector<wire::FrameView> views;
    views.reserve(pJob.fFrames.size());
    for (const zmq::message_t& frame : pJob.fFrames) views.push_back({frame.data(), frame.size()});
    const OXValue header = wire::decode(views, fOptions.fMaxMessageBytes);
    pJob.fFrames.clear();  // the decoded value holds its own copy
    if (!header.isArray() || header.getSize() < 3 || !header[0].isInt() || !header[1].isInt() ||
        !header[2].isString()) {
      refuse("decode", "malformed message: a request is [version, id, operation, ...]");
    }
    id = header[1].asInt();
    if (header[0].asInt() != wire::kProtocolVersion) {
      refuse("decode", "unsupported protocol version " + std::to_string(header[0].asInt()) +
                           " (this broker speaks " + std::to_string(wire::kProtocolVersion) + ")");
    }
    *reply = okReply(id, runOperation(header, effect, helloName));
  } catch (const OXError& error) {
    *reply = errorReply(id, error);
  } catch (const std::exception& error) {
    *reply = errorReply(id, OXError("OXBroker", "call", error.what(), kHostFile, 0));
  }

  wire::Encoded encoded;
  try {
    wire::encode(*reply, encoded);
  } catch (const std::exception& error) {
    *reply = errorReply(id, OXError("OXBroker", "encode", error.what(), kHostFile, 0));
    wire::encode(*reply, encoded);
  }
  std::string effectFrame(1, static_cast<char>(effect));
  effectFrame += helloName;
  const boost::shared_ptr<const OXValue> owner = reply;
  (void)pReplies.send(zmq::buffer(pJob.fRoutingId), zmq::send_flags::sndmore);
  (void)pReplies.send(zmq::buffer(effectFrame), zmq::send_flags::sndmore);
  (void)pReplies.send(zmq::buffer(encoded.fHeader),
                      encoded.fFrames.empty() ? zmq::send_flags::none : zmq::send_flags::sndmore);
  for (std::size_t i = 0; i < encoded.fFrames.size(); ++i) {
    zmq::message_t frame = borrowedFrame(*encoded.fFrames[i], owner);
    (void)pReplies.send(
        frame, i + 1 == encoded.fFrames.size() ? zmq::send_flags::none : zmq::send_flags::sndmore);
  }
}

OXValue OXBrokerHost::Impl::runOperation(const OXValue& pHeader, SessionEffect& pEffect,
                                         std::string& pHelloName) {
  const std::string& op = pHeader[2].asString();
  if (op == "call") {
    const std::string& module = operandString(pHeader, 3, op);
    const std::string& method = operandString(pHeader, 4, op);
    const OXValue arguments = pHeader.getSize() > 5 ? pHeader[5] : OXValue();
    if (arguments.isValid() && !arguments.isArray()) {
      refuse(op, "the arguments of " + method + " must be an array");
    }
    return fBroker->getProxy(module, 0)->genericCall(method, arguments);
  }
  if (op == "hello") {
    const std::string& name = operandString(pHeader, 3, op);
    if (pHeader.getSize() > 4 && pHeader[4].isValid()) {
      fBroker->getProxy(operandString(pHeader, 4, op), 0);  // throws for an unknown module
    }
    pEffect = SessionEffect::kHello;
    pHelloName = name;
    return OXValue::array({fBroker->getName(), OXValue(fBroker->getModuleNames())});
  }
  if (op == "methods") {
    return OXValue(fBroker->getProxy(operandString(pHeader, 3, op), 0)->getMethodList());
  }
  if (op == "help") {
    const std::string& module = operandString(pHeader, 3, op);
    return fBroker->getProxy(module, 0)->getMethodHelp(operandString(pHeader, 4, op));
  }
  if (op == "describe") return fBroker->getProxy(operandString(pHeader, 3, op), 0)->describe();
  if (op == "modules") return OXValue(fBroker->getModuleNames());
  if (op == "ping") return OXValue();
  if (op == "bye") {
    pEffect = SessionEffect::kBye;
    return OXValue();
  }
  refuse("decode", "unknown operation \"" + op + "\"");
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

}  // namespace OX
