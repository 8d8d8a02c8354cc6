// Whatever comes back from the server ends in a status, never in a crash or a
// hang past the time-outs.
#include <gtest/gtest.h>

#include <future>
#include <utility>

#include "Services/RestConnector.h"
#include "support/FixedReachability.h"
#include "support/RawReplyServer.h"
#include "support/ScopedEnvironment.h"

using namespace std::chrono_literals;

namespace {

class HostileReplyTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    environment.update([&](Environment& e) { e.baseURL = peer.baseURL(); });
    environment.update([](Environment& e) { e.requestTimeout = 2; });
  }
  int statusFor(const std::string& reply) {
    peer.setReply(reply);
    std::promise<int> status;
    RestConnector::create()->startAsyncTask(
        "MAC/SharedFiles.svc/GetSharedFilesTransferData", {{"ComputerId", "C1"}}, nullptr,
        [&](const ConnectorResult&, int s) { status.set_value(s); });
    auto future = status.get_future();
    if (future.wait_for(20s) != std::future_status::ready) return -100;
    return future.get();
  }

  std::shared_ptr<FixedReachability> network = FixedReachability::install(0x2);
  RawReplyServer peer;
};

}  // namespace

TEST_F(HostileReplyTest, ReplyCutAtAnyByteEndsInANetworkOrDecodingStatus) {
  const std::string whole =
      "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 20\r\n\r\n"
      "{\"ReturnStatus\":\"0\"}";
  ASSERT_EQ(statusFor(whole), 0);
  for (std::size_t cut = 0; cut < whole.size(); ++cut) {
    int status = statusFor(whole.substr(0, cut));
    EXPECT_TRUE(status == 2 || status == 5) << "cut at " << cut << " gave " << status;
  }
}

TEST_F(HostileReplyTest,
       AnswerPast64MiBEndsWithDataLengthExceedsMaximumAndJsonAtTheDepthBoundDecodes) {
  // 64 MiB take a while under the sanitizers; only a stall should time out.
  environment.update([](Environment& e) { e.requestTimeout = 60; });
  const std::size_t length = (64U << 20U) + 1;
  std::string huge = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n[\"";
  huge.append(length - 4, 'x');
  huge += "\"]";
  ASSERT_EQ(huge.size() - huge.find("\r\n\r\n") - 4, length);
  peer.setReply(std::move(huge));
  std::promise<std::pair<long, int>> report;
  RestConnector::create()->startAsyncTask(
      "MAC/SharedFiles.svc/GetSharedFilesTransferData", {{"ComputerId", "C1"}}, nullptr,
      [&](const ConnectorResult& result, int s) {
        const auto* error = std::get_if<PlatformError>(&result);
        report.set_value({error != nullptr ? error->code() : 0, s});
      });
  EXPECT_EQ(report.get_future().get(), std::make_pair(-1103L, 2));

  const std::string atBound = std::string(32, '[') + std::string(32, ']');
  EXPECT_EQ(statusFor("HTTP/1.1 200 OK\r\nContent-Length: 64\r\n\r\n" + atBound), 0);
}

TEST_F(HostileReplyTest, GarbageHugeHeadersAndBrokenFramingEndInAStatus) {
  const std::string cases[] = {
      std::string("\x00\xff garbage \r\n\r\n", 15),
      "HTTP/1.1 200 OK\r\nX-Huge: " + std::string(300000, 'h') + "\r\nContent-Length: 2\r\n\r\n{}",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n{}\r\n0\r\n\r\n",
      "HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n{}",
      "HTTP/1.1 banana\r\n\r\n",
      "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{\"ReturnStatus\":\"0\"} and more",
      "HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\n" + std::string("{\"a\":\"\xC3\"}", 8),
  };
  for (const std::string& reply : cases) {
    int status = statusFor(reply);
    EXPECT_TRUE(status == 2 || status == 5) << reply.substr(0, 60) << " gave " << status;
  }
}
