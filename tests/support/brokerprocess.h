// The broker host program in a process of its own, and a raw ZeroMQ client that sends what the
// proxies never would: shared by the tests that drive the host from outside.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>
#include <zmq.hpp>

#include <gtest/gtest.h>

#include "oxvalue.h"
#include "oxwire.h"

namespace vitest {

// Sanitizer builds run several times slower: time bounds that guard a behaviour, not a speed,
// are stretched by this factor there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kTimeScale = 5;
constexpr bool kSanitized = true;
#else
constexpr int kTimeScale = 1;
constexpr bool kSanitized = false;
#endif

// oxbroker started on a loopback port (a free one unless --port is given); stopped with SIGTERM
// at the end, which must end it cleanly.
class BrokerProcess {
 public:
  explicit BrokerProcess(std::vector<std::string> pOptions = {}) {
    std::vector<std::string> args = {std::string(VI_PROGRAM_DIR) + "/oxbroker",
                                     "--port",
                                     "0",
                                     "--http",
                                     "off",
                                     "--log-level",
                                     "-1"};
    args.insert(args.end(), pOptions.begin(), pOptions.end());  // a later --port wins
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int pipeFds[2];
    EXPECT_EQ(pipe(pipeFds), 0);
    const pid_t parent = getpid();
    fPid = fork();
    if (fPid == 0) {
      // The broker must not outlive a test that dies: it would keep the test's output open.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(1);
      dup2(pipeFds[1], 1);
      close(pipeFds[0]);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(pipeFds[1]);
    fOutput = pipeFds[0];
    // The first line says where it listens.
    std::string line;
    char c;
    pollfd ready{fOutput, POLLIN, 0};
    while (line.find('\n') == std::string::npos && poll(&ready, 1, 10000 * kTimeScale) > 0 &&
           read(fOutput, &c, 1) == 1) {
      line += c;
    }
    const std::string prefix = "oxbroker: listening on tcp://127.0.0.1:";
    EXPECT_EQ(line.rfind(prefix, 0), 0u) << line;
    fPort = std::atoi(line.c_str() + prefix.size());
  }
  ~BrokerProcess() {
    if (fPid > 0) {
      const int status = stop({SIGTERM}, std::chrono::seconds(10 * kTimeScale));
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    }
    close(fOutput);
  }
  int port() const { return fPort; }
  pid_t pid() const { return fPid; }
  std::string url() const { return "tcp://127.0.0.1:" + std::to_string(fPort); }

  // The most memory the process has held so far (VmHWM), in bytes.
  std::size_t peakMemory() const {
    std::ifstream status("/proc/" + std::to_string(fPid) + "/status");
    std::string key;
    while (status >> key) {
      std::size_t kilobytes = 0;
      if (key == "VmHWM:" && status >> kilobytes) return kilobytes * 1024;
    }
    return 0;
  }

  // Sends the signals one after the other and waits for the exit; the wait status, or -1 when
  // the process had not ended by the deadline (it is then killed).
  int stop(const std::vector<int>& pSignals, std::chrono::milliseconds pDeadline) {
    for (int signal : pSignals) kill(fPid, signal);
    const auto end = std::chrono::steady_clock::now() + pDeadline;
    int status = 0;
    while (waitpid(fPid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > end) {
        kill(fPid, SIGKILL);
        waitpid(fPid, &status, 0);
        status = -1;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    fPid = -1;
    return status;
  }

 private:
  pid_t fPid = -1;
  int fOutput = -1;
  int fPort = 0;
};

// A DEALER socket that speaks the protocol by hand.
class RawClient {
 public:
  // A deaf client takes in one message and a few kilobytes, then nothing until it reads.
  // pSetUp sets further options of the socket before it connects.
  explicit RawClient(const std::string& pUrl, bool pDeaf = false,
                     const std::function<void(zmq::socket_t&)>& pSetUp = nullptr)
      : fSocket(fContext, zmq::socket_type::dealer) {
    fSocket.set(zmq::sockopt::linger, 0);
    if (pDeaf) {
      fSocket.set(zmq::sockopt::rcvhwm, 1);
      fSocket.set(zmq::sockopt::rcvbuf, 4096);
    }
    if (pSetUp) pSetUp(fSocket);
    fSocket.connect(pUrl);
  }
  void sendFrames(const std::vector<std::string>& pFrames) {
    for (std::size_t i = 0; i < pFrames.size(); ++i) {
      fSocket.send(zmq::buffer(pFrames[i]),
                   i + 1 < pFrames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
    }
  }
  // [1, pId, pOperation, operands...]
  void send(int pId, const std::string& pOperation, OX::OXValue::Array pOperands = {}) {
    OX::OXValue::Array header = {OX::wire::kProtocolVersion, pId, pOperation};
    header.insert(header.end(), pOperands.begin(), pOperands.end());
    const OX::OXValue message(std::move(header));  // the frames point into it
    OX::wire::Encoded encoded;
    OX::wire::encode(message, encoded);
    std::vector<std::string> frames = {encoded.fHeader};
    for (const OX::OXValue::Binary* frame : encoded.fFrames)
      frames.emplace_back(frame->begin(), frame->end());
    sendFrames(frames);
  }
  // The next reply (the host's probes, id 0, are skipped); invalid after pTimeoutMs of silence.
  OX::OXValue receive(int pTimeoutMs = 10000 * kTimeScale) {
    while (true) {
      std::vector<zmq::pollitem_t> items = {{fSocket.handle(), 0, ZMQ_POLLIN, 0}};
      if (zmq::poll(items, std::chrono::milliseconds(pTimeoutMs)) == 0) return OX::OXValue();
      std::vector<zmq::message_t> frames;
      do {
        frames.emplace_back();
        (void)fSocket.recv(frames.back());
      } while (frames.back().more());
      std::vector<OX::wire::FrameView> views;
      for (const zmq::message_t& frame : frames) views.push_back({frame.data(), frame.size()});
      OX::OXValue reply = OX::wire::decode(views, SIZE_MAX, OX::wire::DecodeBudget::unlimited());
      if (!reply.isArray() || reply.getSize() < 2 || !(reply[1] == OX::OXValue(0))) return reply;
    }
  }
  // Says hello and checks the answer.
  void hello(const std::string& pName) {
    send(1, "hello", {pName, OX::OXValue()});
    const OX::OXValue reply = receive();
    EXPECT_TRUE(reply.isArray() && reply[2] == OX::OXValue("ok")) << "no answer to hello";
  }

 private:
  zmq::context_t fContext;
  zmq::socket_t fSocket;
};

}  // namespace vitest
