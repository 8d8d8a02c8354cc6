#include "Services/RestConnector_Old.h"

#include <gtest/gtest.h>

#include <future>

#include "Platform/CurlEngine.h"
#include "Platform/DispatchQueues.h"
#include "ReferenceServer.h"
#include "Services/DownloadConnection.h"
#include "support/ConnectorResults.h"
#include "support/FixedReachability.h"
#include "support/LogCapture.h"
#include "support/ScopedEnvironment.h"
#include "support/WaitUntil.h"

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

struct Report {
  ConnectorResult result;
  int status = -100;
  bool onMainQueue = true;
  bool onItsOwnQueue = false;
};

class RestConnector_OldTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    server.start();
    environment.update([&](Environment& e) { e.baseURL = server.baseURL(); });
  }

  Report exchange(const std::string& path, const RestConnector_Old::Params& params) {
    std::promise<Report> promise;
    auto connector = RestConnector_Old::create();
    connector->startAsyncTask(path, params, nullptr, [&](const ConnectorResult& r, int status) {
      auto queue = connector->operationQueue();
      promise.set_value(
          {r, status, DispatchQueues::shared().isMainQueueThread(), queue && queue->isCurrent()});
    });
    auto future = promise.get_future();
    if (future.wait_for(30s) != std::future_status::ready) throw std::runtime_error("no report");
    return future.get();
  }

  std::shared_ptr<FixedReachability> network = FixedReachability::install(0x2);
  ReferenceServer server;
};

}  // namespace

TEST_F(RestConnector_OldTest, SameStatusesAsTheSessionConnectorOnItsPrivateQueue) {
  server.script("MAC/SharedFiles.svc/GetSharedFilesTransferData",
                ReferenceServer::json({{"ReturnStatus", "0"}}, 500));
  server.script("NotJson", ReferenceServer::raw("busy", "text/plain"));
  Report ok = exchange("MAC/SharedFiles.svc/GetSharedFilesTransferData",
                       {{"ComputerId", "C1"}, {"UserId", "U1"}});
  EXPECT_EQ(ok.status, 0);
  EXPECT_EQ(std::get<json>(ok.result), json({{"ReturnStatus", "0"}}));
  EXPECT_FALSE(ok.onMainQueue);
  EXPECT_TRUE(ok.onItsOwnQueue);
  auto seen = server.requestsFor("MAC/SharedFiles.svc/GetSharedFilesTransferData");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].body, "{\n  \"ComputerId\": \"C1\",\n  \"UserId\": \"U1\"\n}");
  EXPECT_EQ(seen[0].header("Content-Type"), "application/json");
  EXPECT_EQ(seen[0].header("Content-Length"), std::to_string(seen[0].body.size()));

  Report notJson = exchange("NotJson", RestConnector_Old::Params::object());
  EXPECT_EQ(notJson.status, 5);
  server.stop();
  Report refused = exchange("X", RestConnector_Old::Params::object());
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(errorCode(refused.result), -1004);
}

TEST_F(RestConnector_OldTest, NotReachableAndUnencodableReportAtOnceWithoutAQueue) {
  auto connector = RestConnector_Old::create();
  int status = -100;
  LogCapture log;
  connector->startAsyncTask("X", {{"Name", std::string("\xFF", 1)}}, nullptr,
                            [&](const ConnectorResult&, int s) { status = s; });
  EXPECT_EQ(status, 4);
  EXPECT_TRUE(log.contains("Json String (null)"));
  network = FixedReachability::install(0);
  connector->startAsyncTask("X", RestConnector_Old::Params::object(), nullptr,
                            [&](const ConnectorResult&, int s) { status = s; });
  EXPECT_EQ(status, 1);
  EXPECT_FALSE(connector->operationQueue());
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(RestConnector_OldTest, TheQueuesLastOperationIsCancelledAfterTheHandler) {
  std::promise<void> handled;
  std::atomic<bool> lateRan{false};
  auto connector = RestConnector_Old::create();
  connector->startAsyncTask(
      "X", RestConnector_Old::Params::object(), nullptr, [&](const ConnectorResult&, int) {
        // Queued behind the handler: it is the queue's last operation.
        connector->operationQueue()->addOperationWithBlock([&] { lateRan = true; });
        handled.set_value();
      });
  handled.get_future().wait();
  waitUntil([&] { return connector->operationQueue()->operations().empty(); });
  EXPECT_TRUE(connector->operationQueue()->operations().empty());
  EXPECT_FALSE(lateRan);
  EXPECT_FALSE(connector->connection()) << "the exchange goes through a session";
}

TEST_F(RestConnector_OldTest, UnknownPlatformErrorNeverCallsFinished) {
  LogCapture log;
  std::atomic<bool> called{false};
  Environment::injectTransferFailure(-1);
  auto connector = RestConnector_Old::create();
  connector->startAsyncTask("X", RestConnector_Old::Params::object(), nullptr,
                            [&](const ConnectorResult&, int) { called = true; });
  EXPECT_TRUE(log.waitFor("error code at rest connector strt async task......"));
  EXPECT_FALSE(called);
}

namespace {

class Collector : public URLConnectionDelegate {
 public:
  void didReceiveData(URLConnection& /*connection*/, const std::string& data) override {
    received += data;  // on the connection's serial queue
  }
  void connectionDidFinishLoading(URLConnection& connection) override {
    done.set_value({dynamic_cast<DownloadConnection&>(connection).tag(), received, 0});
  }
  void didFailWithError(URLConnection& connection, const PlatformError& error) override {
    done.set_value({dynamic_cast<DownloadConnection&>(connection).tag(), received, error.code()});
  }
  std::string received;
  std::promise<std::tuple<std::string, std::string, long>> done;
};

}  // namespace

TEST_F(RestConnector_OldTest, DownloadConnectionAnswersItsTagAndStreamsToItsDelegate) {
  server.script("MAC/SharedFiles.svc/GetFileStreamFromCloud", [] {
    auto reply = ReferenceServer::raw(std::string(300000, 'z'));
    reply.chunkSize = 4096;
    return reply;
  }());
  auto collector = std::make_shared<Collector>();
  auto future = collector->done.get_future();
  URLRequest request =
      RestConnector::jsonRequest("MAC/SharedFiles.svc/GetFileStreamFromCloud", "{}");
  DownloadConnection::initWithRequest(request, collector, "file-17");
  auto [tag, bytes, code] = future.get();
  EXPECT_EQ(tag, "file-17");
  EXPECT_EQ(code, 0);
  EXPECT_EQ(bytes, std::string(300000, 'z'));
}

TEST_F(RestConnector_OldTest,
       DownloadConnectionRequiringSuccessFailsOnAnErrorPageAndPassesItNoData) {
  ReferenceServer::Reply page =
      ReferenceServer::raw("<html><body><h1>502 Bad Gateway</h1></body></html>", "text/html");
  page.status = 502;
  server.script("MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer", page);
  URLRequest request =
      RestConnector::jsonRequest("MAC/SharedFiles.svc/UpdateReceiveFileFromTransfer", "{}");
  request.requiresSuccessfulStatus = true;
  auto collector = std::make_shared<Collector>();
  auto future = collector->done.get_future();
  DownloadConnection::initWithRequest(request, collector, "file-18");
  ASSERT_EQ(future.wait_for(30s), std::future_status::ready);
  auto [tag, bytes, code] = future.get();
  EXPECT_EQ(tag, "file-18");
  EXPECT_EQ(code, -1011);
  EXPECT_EQ(bytes, "");
}
