// The broker host's HTTP side in one process, so that the sanitizers see it: the host's counts per
// method, and live views that stream beside the API and metrics and end with the server.
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "oxbrokerhost.h"
#include "oxhttpserver.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using namespace std::chrono;

// Guards against client-chosen names growing the host's counters without bound, and against
// latencies counted in the wrong bucket.
TEST(HostMetrics, BoundsItsNamesAndBucketsLatencies) {
  OX::net::HostMetrics metrics;
  metrics.record("M", "fast", false, 10, 20, microseconds(50));
  metrics.record("M", "fast", true, 10, 20, milliseconds(3));
  metrics.record("M", "slow", false, 1, 2, seconds(30));
  metrics.record("M", std::string("bad\nname"), false, 1, 1, microseconds(1));
  metrics.record("M", std::string(200, 'x'), false, 1, 1, microseconds(1));
  for (std::size_t i = 0; i < OX::net::HostMetrics::kMaxMethods + 10; ++i) {
    metrics.record("N", "m" + std::to_string(i), false, 0, 0, microseconds(1));
  }
  const std::vector<OX::net::MethodTotals> totals = metrics.methods();
  EXPECT_LE(totals.size(), OX::net::HostMetrics::kMaxMethods);
  std::map<std::string, OX::net::MethodTotals> byMethod;
  for (const auto& total : totals) byMethod[total.fModule + "." + total.fMethod] = total;
  const OX::net::MethodTotals& fast = byMethod.at("M.fast");
  EXPECT_EQ(fast.fCalls, 2u);
  EXPECT_EQ(fast.fErrors, 1u);
  EXPECT_EQ(fast.fRequestBytes, 20u);
  EXPECT_EQ(fast.fReplyBytes, 40u);
  EXPECT_EQ(fast.fBuckets[0], 1u);  // 50 us <= 0.1 ms
  EXPECT_EQ(fast.fBuckets[5], 1u);  // 3 ms in (2.5 ms, 5 ms]
  EXPECT_EQ(byMethod.at("M.slow").fBuckets.back(), 1u);  // above every bound
  // The bad names and the calls past the bound are all counted, under "(other)", which takes
  // one of the places itself.
  const std::size_t named = OX::net::HostMetrics::kMaxMethods - 3;  // besides M.fast, M.slow
  EXPECT_EQ(byMethod.at("(other).(other)").fCalls,
            2u + OX::net::HostMetrics::kMaxMethods + 10u - named);
  EXPECT_EQ(metrics.calls(), 3u + 2u + OX::net::HostMetrics::kMaxMethods + 10u);
}

class Pages : public ::testing::Test {
 protected:
  boost::shared_ptr<OX::OXBroker> broker;
  boost::shared_ptr<OX::OXVisionSimulatorCam> cam = vitest::makeSimulatorCam(&broker);
  OX::OXBrokerHost host{broker, hostOptions()};
  std::unique_ptr<oxhttp::HttpServer> server;
  std::unique_ptr<httplib::Client> client;
  std::string base;  // http://127.0.0.1:PORT

  static OX::OXBrokerHost::Options hostOptions() {
    OX::OXBrokerHost::Options options;
    options.fPort = 0;
    return options;
  }
  void SetUp() override {
    host.start();
    oxhttp::Options options;
    options.fPort = 0;
    options.fPages = std::string(VI_SOURCE_DIR) + "/share/http";
    options.fMaxLiveViews = 2;
    server.reset(new oxhttp::HttpServer(broker, host, options));
    server->start();
    const std::string url = server->getUrl();  // http://127.0.0.1:PORT/
    base = url.substr(0, url.size() - 1);
    client.reset(new httplib::Client(base));
  }
  int subscribers(const std::string& pPrefix) {
    int found = 0;
    for (const OX::OXStatusEntry& entry : cam->getStatus()) {
      if (entry.fKind == "subscriber" && entry.fId.rfind(pPrefix, 0) == 0) ++found;
    }
    return found;
  }
};

// Guards against races between live views, the API and the metrics, against a third view beyond
// the limit, and against a stop that waits on a view or leaves its subscriber behind.
TEST_F(Pages, LiveViewsStreamBesideTheApiAndEndWithTheServer) {
  std::atomic<bool> pushing{true};
  std::thread pusher([this, &pushing] {
    OX::OXProxy device(broker, "OXVideoDevice");
    for (uint32_t seed = 0; pushing; ++seed) {
      device.genericCall("putImage",
                         OX::OXValue::array({0, 320, 240, vitest::rgbFrame(OX::kQVGA, seed % 4)}));
      std::this_thread::sleep_for(milliseconds(20));
    }
  });
  std::atomic<int> parts[2] = {{0}, {0}};
  std::vector<std::thread> viewers;
  for (int v = 0; v < 2; ++v) {
    viewers.emplace_back([this, v, &parts] {
      httplib::Client viewer(base);
      viewer.Get(v == 0 ? "/live/stream?fps=30" : "/live/stream?colorspace=yuv422&fps=30",
                 [&](const char* pData, std::size_t pSize) {
                   const std::string text(pData, pSize);
                   for (std::size_t at = text.find("--oxframe"); at != std::string::npos;
                        at = text.find("--oxframe", at + 1)) {
                     ++parts[v];
                   }
                   return true;
                 });
    });
  }
  ASSERT_TRUE(vitest::pollUntil([&] { return parts[0] >= 3 && parts[1] >= 3; }, 10000));
  const auto third = client->Get("/live/stream");
  ASSERT_TRUE(third);
  EXPECT_EQ(third->status, 429);
  for (const char* path : {"/api/host", "/api/live", "/api/devices/OXVideoDevice", "/metrics"}) {
    const auto response = client->Get(path);
    ASSERT_TRUE(response) << path;
    EXPECT_EQ(response->status, 200) << path;
  }
  EXPECT_EQ(subscribers("http-live"), 2);
  const steady_clock::time_point stopping = steady_clock::now();
  server->stop();
  EXPECT_LT(steady_clock::now() - stopping, seconds(2));
  for (std::thread& viewer : viewers) viewer.join();
  pushing = false;
  pusher.join();
  EXPECT_EQ(subscribers("http-live"), 0);
}

}  // namespace
