// The broker host's HTTP side in one process, so that the sanitizers see it: the host's counts per
// method, and live views that stream beside the API and metrics and end with the server.
#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <thread>

#include "oxbrokerhost.h"
#include "oxhttpserver.h"
#include "simulatorsupport.h"
#include "testsupport.h"

namespace {

using namespace std::chrono;
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

// Sends GET pPath to the server at 127.0.0.1:pPort on pStream.
bool request(beast::tcp_stream& pStream, int pPort, const std::string& pPath) {
  beast::error_code error;
  pStream.connect({asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(pPort)}, error);
  http::request<http::empty_body> get{http::verb::get, pPath, 11};
  get.set(http::field::host, "127.0.0.1");
  if (!error) http::write(pStream, get, error);
  return !error;
}

// The status of GET pPath; 0 without an answer.
int status(int pPort, const std::string& pPath) {
  asio::io_context io;
  beast::tcp_stream stream(io);
  beast::flat_buffer buffer;
  http::response<http::string_body> response;
  beast::error_code error;
  if (request(stream, pPort, pPath)) http::read(stream, buffer, response, error);
  return error ? 0 : response.result_int();
}

// Reads the stream of GET pPath until the server ends it, counting its parts.
void watch(int pPort, const std::string& pPath, std::atomic<int>& pParts) {
  asio::io_context io;
  beast::tcp_stream stream(io);
  if (!request(stream, pPort, pPath)) return;
  const std::string boundary = "--oxframe";
  std::string tail;
  char data[16384];
  beast::error_code error;
  for (;;) {
    const std::size_t got = stream.socket().read_some(asio::buffer(data), error);
    if (error) return;
    const std::string text = tail + std::string(data, got);
    for (std::size_t at = text.find(boundary); at != std::string::npos;
         at = text.find(boundary, at + 1)) {
      ++pParts;
    }
    tail = text.substr(text.size() - std::min(text.size(), boundary.size() - 1));
  }
}

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
  EXPECT_EQ(fast.fBuckets[0], 1u);                       // 50 us <= 0.1 ms
  EXPECT_EQ(fast.fBuckets[5], 1u);                       // 3 ms in (2.5 ms, 5 ms]
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
  int port = 0;

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
    port = std::stoi(url.substr(url.rfind(':') + 1));
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
      watch(port, v == 0 ? "/live/stream?fps=30" : "/live/stream?colorspace=yuv422&fps=30",
            parts[v]);
    });
  }
  ASSERT_TRUE(vitest::pollUntil([&] { return parts[0] >= 3 && parts[1] >= 3; }, 10000));
  EXPECT_EQ(status(port, "/live/stream"), 429);
  for (const char* path : {"/api/host", "/api/live", "/api/devices/OXVideoDevice", "/metrics"}) {
    EXPECT_EQ(status(port, path), 200) << path;
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
