// The broker host against clients that try to exhaust, starve or outlast it: bounded memory
// under requests built to blow up, fair turns under a client that pipelines slow calls, and a
// prompt stop under load. docs/robustness.md quotes the figures these tests measure.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "brokerprocess.h"
#include "oxbroker.h"
#include "testsupport.h"

namespace {

using OX::OXProxy;
using OX::OXValue;
using std::chrono::milliseconds;
using vitest::BrokerProcess;
using vitest::kTimeScale;
using vitest::RawClient;

constexpr std::size_t kMiB = 1 << 20;
// How long the device waits for a first frame before it gives up (2000 polls of 500 us).
constexpr milliseconds kFirstFrameWait(1000);

template <class F>
milliseconds timed(F pCall) {
  const auto start = std::chrono::steady_clock::now();
  pCall();
  return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
}

// A client that subscribes to camera 1, which no frame ever reaches, and pipelines calls that
// each wait a whole first-frame wait under the device's lock.
void pipelineSlowCalls(RawClient& pClient, int pCount, const std::string& pName = "hog") {
  pClient.hello(pName);
  pClient.send(1, "call",
               {"OXVideoDevice", "subscribeCamera", OXValue::array({pName, 1, 0, 11, 30})});
  ASSERT_EQ(pClient.receive()[3], OXValue(pName));
  for (int id = 2; id < 2 + pCount; ++id) {
    pClient.send(id, "call", {"OXVideoDevice", "getImageRemote", OXValue::array({pName})});
  }
}

// The three attacks on memory, each against a broker of its own. Each returns what it would
// have cost the host without the bounds.
std::size_t sendNils(RawClient& pClient, const std::string&) {
  // [1, 2, "call", "OXMemory", "insertData", ["k", [nil x 16M]]]: 16 MiB on the wire.
  const std::size_t nils = (vitest::kSanitized ? 2 : 16) * kMiB;
  std::string header =
      "\x96\x01\x02\xa4"
      "call\xa8OXMemory\xaainsertData\x92\xa1k\xdd";
  for (int shift = 24; shift >= 0; shift -= 8) header += static_cast<char>(nils >> shift);
  header.append(nils, '\xc0');
  pClient.sendFrames({header});
  const OXValue reply = pClient.receive();
  EXPECT_EQ(reply[1], OXValue(2));
  EXPECT_EQ(reply[3][2].asString().rfind("message too large: decoding it needs more than", 0), 0u);
  return nils * (sizeof(OXValue) + 24);  // an OXValue and a parsed object per nil
}

std::size_t sendFrames(RawClient& pClient, const std::string&) {
  // A ping followed by a million empty frames, two bytes each on the wire.
  std::vector<std::string> message(vitest::kSanitized ? 100000 : 1000000, std::string());
  message[0] = "\x93\x01\x03\xa4ping";
  pClient.sendFrames(message);
  const OXValue reply = pClient.receive();
  EXPECT_EQ(reply[1], OXValue(3));
  EXPECT_EQ(reply[3][2], OXValue("message too large: more than 256 frames"));
  return message.size() * 2 * 64;  // ZeroMQ's message record and the host's copy of it
}

std::size_t askImagesUnread(RawClient& pClient, const std::string& pUrl) {
  // 64 VGA images of 900 KiB asked for by a client that reads none of them.
  RawClient deaf(pUrl, true);
  deaf.hello("deaf");
  std::vector<unsigned char> rgb(640 * 480 * 3, 90);
  deaf.send(2, "call",
            {"OXVideoDevice", "subscribeCamera", OXValue::array({"deaf", 0, 2, 11, 30})});
  deaf.send(3, "call",
            {"OXVideoDevice", "putImage",
             OXValue::array({0, 640, 480, OXValue::binary(rgb.data(), 640 * 480 * 3)})});
  for (int id = 4; id < 68; ++id) {
    deaf.send(id, "call", {"OXVideoDevice", "getImageRemote", OXValue::array({"deaf"})});
  }
  std::this_thread::sleep_for(milliseconds(300 * kTimeScale));  // all it will do, it has done
  pClient.send(4, "ping");
  EXPECT_EQ(pClient.receive()[2], OXValue("ok"));
  return 64 * rgb.size();
}

// Before the bounds, a header of nils grew 47 times over when decoded, the frames of a request
// were all kept before any check, and a client that read no replies could make the host hold a
// thousand images: the host's peak memory must stay near what the bounds allow.
TEST(Hostile, RequestsBuiltToBlowUpCostBoundedMemory) {
  struct Case {
    const char* attack;
    std::vector<std::string> options;
    std::size_t (*run)(RawClient&, const std::string&);
    std::size_t bound;
  };
  const std::vector<Case> cases = {
      {"a header of nils", {}, sendNils, 48 * kMiB},
      {"a million empty frames", {}, sendFrames, 96 * kMiB},
      {"64 images never read",
       {"--max-session-bytes", std::to_string(8 * kMiB)},
       askImagesUnread,
       24 * kMiB},
  };
  for (const Case& c : cases) {
    BrokerProcess broker(c.options);
    RawClient raw(broker.url());
    raw.hello("hostile");
    const std::size_t start = broker.peakMemory();
    const std::size_t unbounded = c.run(raw, broker.url());
    // Still answering, this client and others.
    raw.send(5, "ping");
    EXPECT_EQ(raw.receive()[2], OXValue("ok")) << c.attack;
    OXProxy("OXMemory", "127.0.0.1", broker.port()).genericCall("getData", OXValue::array({"k"}));
    const std::size_t grown = broker.peakMemory() - start;
    std::cout << c.attack << ": peak memory +" << grown / kMiB << " MiB (unbounded, about "
              << unbounded / kMiB << " MiB)\n";
    if (!vitest::kSanitized) {
      EXPECT_LT(grown, c.bound) << c.attack;
    }
  }
}

// Before the lanes, one client that pipelined 64 slow calls held every worker and the queue:
// another client's hello went unanswered for seconds. Now it holds one worker, and others wait
// for the device's lock at most one first-frame wait.
TEST(Hostile, PipelinedSlowCallsCostOthersOneWorkerAtMost) {
  BrokerProcess broker;
  {
    RawClient hog(broker.url());
    pipelineSlowCalls(hog, 64);
    const milliseconds quick(100 * kTimeScale);
    std::unique_ptr<OXProxy> memory;
    const milliseconds hello =
        timed([&] { memory.reset(new OXProxy("OXMemory", "127.0.0.1", broker.port())); });
    milliseconds calls(0);
    for (int i = 0; i < 5; ++i) {
      calls = std::max(calls, timed([&] {
                         memory->genericCall("insertData", OXValue::array({"k", i}));
                       }));
    }
    OXProxy device("OXVideoDevice", "127.0.0.1", broker.port());
    // The simulator's frames take the camera's own lock only: they get through at once.
    std::vector<unsigned char> rgb(320 * 240 * 3, 90);
    const OXValue frame = OXValue::binary(rgb.data(), static_cast<int>(rgb.size()));
    const milliseconds push = timed([&] {
      EXPECT_EQ(device.genericCall("putImage", OXValue::array({0, 320, 240, frame})),
                OXValue(true));
    });
    milliseconds deviceCalls(0);
    for (int i = 0; i < 2; ++i) {
      deviceCalls =
          std::max(deviceCalls, timed([&] { device.genericCall("getActiveCamera", OXValue()); }));
    }
    std::cout << "beside 64 pipelined slow calls: hello " << hello.count() << " ms, other module "
              << calls.count() << " ms, putImage " << push.count() << " ms, device call "
              << deviceCalls.count() << " ms at most\n";
    EXPECT_LT(hello, quick);
    EXPECT_LT(calls, quick);
    EXPECT_LT(push, quick);
    EXPECT_LT(deviceCalls, (kFirstFrameWait + milliseconds(500)) * kTimeScale);
  }  // the hog goes: its queued calls are dropped, so that the broker stops promptly below
}

// Requests are read by whichever thread is free: a host that handed the reading to a thread
// about to serve, or let its last free thread serve, would leave a newcomer unanswered while
// every serving thread waits on the camera.
TEST(Hostile, AHostWhoseServingThreadsAreAllBusyStillReadsAndTakesTurns) {
  BrokerProcess broker({"--threads", "2"});
  {
    RawClient hog1(broker.url());
    RawClient hog2(broker.url());
    pipelineSlowCalls(hog1, 4, "hog1");
    pipelineSlowCalls(hog2, 4, "hog2");
    std::unique_ptr<OXProxy> memory;
    const milliseconds hello =
        timed([&] { memory.reset(new OXProxy("OXMemory", "127.0.0.1", broker.port())); });
    // The newcomer's call takes the first turn after a slow one, before the hogs' next.
    const milliseconds call = timed([&] {
      memory->genericCall("insertData", OXValue::array({"k", 1}));
    });
    EXPECT_LT(hello, milliseconds(100 * kTimeScale));
    EXPECT_LT(call, (2 * kFirstFrameWait + milliseconds(500)) * kTimeScale);
  }
}

// A host whose workers stopped only on an empty queue never stopped under load, and a second
// Ctrl-C was ignored.
TEST(Hostile, StopsWithinTwoSecondsUnderLoadAndAtOnceOnASecondSignal) {
  struct Case {
    std::vector<int> signals;
    int exitCode;
    milliseconds within;
  };
  const std::vector<Case> cases = {{{SIGINT}, 0, milliseconds(2000)},
                                   {{SIGINT, SIGTERM}, 128 + SIGTERM, milliseconds(300)}};
  OXProxy::setRemoteTimeout(1000 * kTimeScale);
  for (const Case& c : cases) {
    BrokerProcess broker;
    RawClient hog(broker.url());
    pipelineSlowCalls(hog, 64);
    std::thread busy([&] {
      try {
        OXProxy memory("OXMemory", "127.0.0.1", broker.port());
        for (int i = 0;; ++i) memory.genericCall("insertData", OXValue::array({"k", i}));
      } catch (const OX::OXError&) {
        // The broker stopped.
      }
    });
    std::this_thread::sleep_for(milliseconds(100));  // the hog's first call waits by now
    int status = 0;
    const milliseconds took = timed([&] { status = broker.stop(c.signals, milliseconds(10000)); });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.exitCode) << "status " << status;
    EXPECT_LT(took, c.within * kTimeScale);
    std::cout << c.signals.size() << " signal(s) under load: exit after " << took.count()
              << " ms\n";
    if (c.exitCode == 0) {
      // The queued calls were answered, each under its id, with the reason.
      int refused = 0;
      for (OXValue reply = hog.receive(1000); reply.isArray(); reply = hog.receive(1000)) {
        if (reply[2] == OXValue("error")) {
          EXPECT_GT(reply[1].asInt(), 2);
          EXPECT_EQ(reply[3][2], OXValue("the broker is stopping: request not served"));
          ++refused;
        }
      }
      EXPECT_GT(refused, 0);
    }
    busy.join();
  }
  OXProxy::setRemoteTimeout(30000);
}

}  // namespace
