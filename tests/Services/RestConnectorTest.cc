#include "Services/RestConnector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "Platform/CurlEngine.h"
#include "Platform/DispatchQueues.h"
#include "ReferenceServer.h"
#include "support/ConnectorResults.h"
#include "support/FixedReachability.h"
#include "support/LogCapture.h"
#include "support/MainQueue.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

struct Report {
  ConnectorResult result;
  int status = -100;
  bool onMainQueue = false;
};

class RestConnectorTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    server.start();
    environment.update([&](Environment& e) { e.baseURL = server.baseURL(); });
    environment.update([&](Environment& e) { e.homeFolder = home.path(); });
  }
  // Runs one JSON exchange and waits for its report.
  Report exchange(const std::string& path, const RestConnector::Params& params) {
    std::promise<Report> promise;
    auto connector = RestConnector::create();
    connector->startAsyncTask(path, params, nullptr, [&](const ConnectorResult& r, int status) {
      promise.set_value({r, status, DispatchQueues::shared().isMainQueueThread()});
    });
    auto future = promise.get_future();
    if (future.wait_for(30s) != std::future_status::ready) throw std::runtime_error("no report");
    return future.get();
  }

  std::shared_ptr<FixedReachability> network = FixedReachability::install(0x2);
  ReferenceServer server;
  TemporaryFolder home;
};

}  // namespace

TEST_F(RestConnectorTest, JsonExchangeDecodesTheAnswerWhateverTheHttpStatus) {
  LogCapture log;
  server.script("MAC/ErrorLog.svc/LogError", ReferenceServer::json({{"ReturnStatus", "0"}}));
  server.script("Downloads.svc/Fail", ReferenceServer::json({{"ReturnStatus", "1"}}, 500));
  RestConnector::Params params;
  params["ErrorClass"] = "SharedFilesXpcService";
  params["ComputerId"] = "C1";

  Report ok = exchange("MAC/ErrorLog.svc/LogError", params);
  EXPECT_EQ(ok.status, 0);
  EXPECT_TRUE(ok.onMainQueue);
  EXPECT_EQ(std::get<json>(ok.result), json({{"ReturnStatus", "0"}}));
  Report failed = exchange("Downloads.svc/Fail", params);
  EXPECT_EQ(failed.status, 0) << "the HTTP status is never examined";
  EXPECT_EQ(std::get<json>(failed.result), json({{"ReturnStatus", "1"}}));

  auto seen = server.requestsFor("MAC/ErrorLog.svc/LogError");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(seen[0].body,
            "{\n  \"ErrorClass\": \"SharedFilesXpcService\",\n  \"ComputerId\": \"C1\"\n}");
  EXPECT_EQ(seen[0].header("Content-Length"), std::to_string(seen[0].body.size()));
  EXPECT_EQ(seen[0].header("Content-Type"), "application/json");
  EXPECT_EQ(seen[0].header("Accept"), "*/*") << "the JSON exchange runs on the download set-up";

  EXPECT_TRUE(log.containsPrefix("Json String {\n  \"ErrorClass\""));
  EXPECT_TRUE(log.contains("response {\n  \"ReturnStatus\": \"0\"\n}"));
  waitUntil([&] { return log.containsPrefix("error ............"); });
  EXPECT_TRUE(log.containsPrefix(".........<URLResponse: " + server.baseURL()));
  EXPECT_TRUE(log.contains("error ............(null)"));
}

TEST_F(RestConnectorTest, AnswersThatAreNotJsonObjectsGiveStatus5AndHugeOnesAreLoggedInBrief) {
  server.script("Empty", ReferenceServer::raw("", "application/json"));
  server.script("Html", ReferenceServer::raw("<html>busy</html>", "text/html"));
  server.script("Bare", ReferenceServer::raw("12", "application/json"));
  LogCapture log;
  for (const char* path : {"Empty", "Html", "Bare"}) {
    Report report = exchange(path, RestConnector::Params::object());
    EXPECT_EQ(report.status, 5) << path;
    EXPECT_EQ(errorCode(report.result), 3840) << path;
  }
  // 50,000 nested arrays in 100 KB: refused before anything renders it.
  server.script("Deep", ReferenceServer::raw(std::string(50000, '[') + std::string(50000, ']'),
                                             "application/json"));
  EXPECT_EQ(exchange("Deep", RestConnector::Params::object()).status, 5);
  EXPECT_TRUE(log.contains("response (null)")) << "undecodable, as an answer that is no JSON";

  // Nested to the bound and a few megabytes wide: decoded, shown in one short line.
  json wide = json::array();
  for (int level = 0; level < 30; ++level) wide = json::array({wide, std::string(100000, 'x')});
  server.script("Wide", ReferenceServer::json({{"ReturnStatus", "0"}, {"Padding", wide}}));
  EXPECT_EQ(exchange("Wide", RestConnector::Params::object()).status, 0);
  std::vector<std::string> lines = log.lines();
  auto response = std::find_if(lines.begin(), lines.end(), [](const std::string& l) {
    return l.rfind("response [", 0) == 0 || l.rfind("response {", 0) == 0;
  });
  ASSERT_NE(response, lines.end());
  EXPECT_EQ(response->size(), 4096U);
  EXPECT_EQ(response->substr(response->size() - 3), "\u2026");
}

TEST_F(RestConnectorTest, UnencodableBodyGivesStatus4AtOnceWithNoRequest) {
  RestConnector::Params params;
  params["FileName"] = std::string("caf\xC3", 4);  // cut in the middle of a character
  auto connector = RestConnector::create();
  LogCapture log;
  int status = -100;
  std::thread::id thread;
  connector->startAsyncTask(
      "MAC/SharedFiles.svc/X", params, nullptr, [&](const ConnectorResult& result, int s) {
        status = s;
        thread = std::this_thread::get_id();
        EXPECT_EQ(std::get<PlatformError>(result).domain(), "NSCocoaErrorDomain");
      });
  EXPECT_EQ(status, 4);
  EXPECT_EQ(thread, std::this_thread::get_id());
  EXPECT_FALSE(connector->sessionTask());
  EXPECT_TRUE(log.contains("Json String (null)")) << "the body is logged as no text";

  // The raw-answer exchange logs the body without its label.
  connector->startAsyncDownloadWithStreamRequest(
      "MAC/SharedFiles.svc/X", params, nullptr,
      [&](const std::optional<URLResponse>&, const ConnectorResult&, int s) { status = s; });
  EXPECT_EQ(status, 4);
  EXPECT_TRUE(log.contains("(null)"));
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(RestConnectorTest, TransportFailuresGiveStatus2WithThePlatformErrorAfterTheSetTimeOut) {
  server.script("Slow", [] {
    ReferenceServer::Reply reply;
    reply.delay = 4s;
    return reply;
  }());
  environment.update([](Environment& e) { e.requestTimeout = 1; });
  Report timedOut = exchange("Slow", RestConnector::Params::object());
  EXPECT_EQ(timedOut.status, 2);
  EXPECT_EQ(errorCode(timedOut.result), -1001);
}

TEST_F(RestConnectorTest, UnknownPlatformErrorNeverCallsFinished) {
  LogCapture log;
  std::atomic<bool> called{false};
  Environment::injectTransferFailure(-1);
  auto connector = RestConnector::create();
  connector->startAsyncTask("Any", RestConnector::Params::object(), nullptr,
                            [&](const ConnectorResult&, int) { called = true; });
  EXPECT_TRUE(log.waitFor("error code at rest connector strt async task......"));
  drainMainQueue();
  EXPECT_FALSE(called);
}

TEST_F(RestConnectorTest, RawAnswerExchangeOverloadsItsSecondObject) {
  server.script("Downloads.svc/UpdateFileRequestWithStream",
                ReferenceServer::raw(std::string("\x00\x01 file bytes", 13)));
  std::promise<std::tuple<std::optional<URLResponse>, ConnectorResult, int>> promise;
  RestConnector::create()->startAsyncDownloadWithStreamRequest(
      "Downloads.svc/UpdateFileRequestWithStream", {{"FileId", "9"}}, nullptr,
      [&](const std::optional<URLResponse>& response, const ConnectorResult& r, int status) {
        promise.set_value({response, r, status});
      });
  auto [response, result, status] = promise.get_future().get();
  EXPECT_EQ(status, 0);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->statusCode, 200);
  EXPECT_EQ(std::get<std::string>(result), std::string("\x00\x01 file bytes", 13));
  auto seen = server.requestsFor("Downloads.svc/UpdateFileRequestWithStream");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].header("Accept"), "application/json") << "runs on the data set-up";

  server.stop();
  std::promise<std::tuple<bool, long, int>> failed;
  RestConnector::create()->startAsyncDownloadWithStreamRequest(
      "X", RestConnector::Params::object(), nullptr,
      [&](const std::optional<URLResponse>& r, const ConnectorResult& e, int s) {
        failed.set_value({r.has_value(), errorCode(e), s});
      });
  EXPECT_EQ(failed.get_future().get(), std::make_tuple(false, -1004L, 2));
}

TEST_F(RestConnectorTest, FileUploadSendsRoutingHeadersFromAHomeCopyRemovedOnlyOnSuccess) {
  TemporaryFolder files;
  std::string local = files.file("report.txt");
  std::ofstream(local) << "report body";
  std::string serverPath = local.substr(1);
  std::replace(serverPath.begin(), serverPath.end(), '/', '\\');
  RestConnector::Params params = {
      {"FilePath", serverPath}, {"TransitDownloadPath", "T\\1"}, {"FileRequestID", "77"}};

  std::promise<std::pair<ConnectorResult, int>> promise;
  RestConnector::create()->startAsyncUploadWithStreamRequest(
      "Uploads.svc/GetTopFileUploadWithStream", params, nullptr,
      [&](const ConnectorResult& r, int s) {
        promise.set_value({r, s});
      });
  auto [result, status] = promise.get_future().get();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(std::get<json>(result), json({{"ReturnStatus", "0"}}));
  auto seen = server.requestsFor("Uploads.svc/GetTopFileUploadWithStream");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].body, "report body");
  EXPECT_EQ(seen[0].header("Content-Type"), "application/octet-stream");
  EXPECT_EQ(seen[0].header("FilePath"), serverPath);
  EXPECT_EQ(seen[0].header("TransitDownloadPath"), "T\\1");
  EXPECT_EQ(seen[0].header("FileRequestID"), "77");
  EXPECT_FALSE(std::filesystem::exists(home.file("report.txt")));

  server.stop();
  std::promise<int> failed;
  RestConnector::create()->startAsyncUploadWithStreamRequest(
      "Uploads.svc/GetTopFileUploadWithStream", params, nullptr,
      [&](const ConnectorResult&, int s) { failed.set_value(s); });
  EXPECT_EQ(failed.get_future().get(), 2);
  EXPECT_TRUE(std::filesystem::exists(home.file("report.txt"))) << "left on failure";
}

TEST_F(RestConnectorTest, PauseResumesTheTaskAndCloseCancelsIt) {
  auto idle = RestConnector::create();
  EXPECT_EQ(idle->resume(), 7);
  EXPECT_EQ(idle->pause(), 9);
  EXPECT_EQ(idle->close(), 10);

  server.script("Slow", [] {
    ReferenceServer::Reply reply;
    reply.delay = 300ms;
    return reply;
  }());
  std::promise<int> paused;
  auto connector = RestConnector::create();
  connector->startAsyncTask("Slow", RestConnector::Params::object(), nullptr,
                            [&](const ConnectorResult&, int s) { paused.set_value(s); });
  EXPECT_EQ(connector->pause(), 8);
  EXPECT_EQ(connector->sessionTask()->state(), URLSessionTask::State::kRunning);
  EXPECT_EQ(paused.get_future().get(), 0);
  EXPECT_EQ(connector->resume(), 6);

  std::promise<std::pair<long, int>> closed;
  auto closing = RestConnector::create();
  closing->startAsyncTask("Slow", RestConnector::Params::object(), nullptr,
                          [&](const ConnectorResult& r, int s) {
                            closed.set_value({errorCode(r), s});
                          });
  EXPECT_EQ(closing->close(), 11);
  EXPECT_EQ(closed.get_future().get(), std::make_pair(-999L, 2));
}

TEST_F(RestConnectorTest, PlainDownloadAndThePreparedUploadThatIsNeverSent) {
  std::promise<std::pair<ConnectorResult, int>> downloaded;
  RestConnector::create()->startAsyncDownload(server.baseURL() + "file.bin", nullptr,
                                              [&](const ConnectorResult& r, int s) {
                                                downloaded.set_value({r, s});
                                              });
  auto [bytes, status] = downloaded.get_future().get();
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(std::holds_alternative<std::string>(bytes));

  LogCapture log;
  bool called = false;
  auto connector = RestConnector::create();
  connector->startAsyncUpload("Uploads.svc/X", {{"A", "1"}}, nullptr,
                              [&](const ConnectorResult&, int) { called = true; });
  EXPECT_TRUE(log.contains("url is........" + server.baseURL() + "Uploads.svc/X"));
  EXPECT_FALSE(connector->sessionTask());
  // An exchange started after it is answered; the prepared one never went.
  EXPECT_EQ(exchange("Uploads.svc/Y", RestConnector::Params::object()).status, 0);
  EXPECT_FALSE(called);
  EXPECT_TRUE(server.requestsFor("Uploads.svc/X").empty());
}

TEST_F(RestConnectorTest, WithoutNetworkEveryStartReportsStatus1AtOnceAndMakesNoTask) {
  network = FixedReachability::install(0);
  auto connector = RestConnector::create();
  std::vector<int> statuses;
  auto record = [&](const ConnectorResult& r, int s) {
    EXPECT_TRUE(std::holds_alternative<std::monostate>(r));
    statuses.push_back(s);
  };
  connector->startAsyncTask("A", RestConnector::Params::object(), nullptr, record);
  connector->startAsyncDownloadWithStreamRequest(
      "A", RestConnector::Params::object(), nullptr,
      [&](const std::optional<URLResponse>&, const ConnectorResult& r, int s) { record(r, s); });
  connector->startAsyncDownload(server.baseURL(), nullptr, record);
  connector->startAsyncUploadWithStreamRequest("A", RestConnector::Params::object(), nullptr,
                                               record);
  connector->startAsyncUpload("A", RestConnector::Params::object(), nullptr, record);
  EXPECT_EQ(statuses, std::vector<int>({1, 1, 1, 1, 1}));
  EXPECT_FALSE(connector->sessionTask());
  EXPECT_FALSE(connector->session());
  EXPECT_TRUE(server.requests().empty());
}

TEST(RestConnectorUrlTest, AbsoluteUrlIsTheBaseAndThePathJoinedUnescaped) {
  ScopedEnvironment environment(
      [](Environment& e) { e.baseURL = "http://127.0.0.1:1/TallowboxRestService/"; });
  EXPECT_EQ(
      RestConnector::getAbsoluteURL("MAC/SharedFiles.svc/GetSharedFilesTransferData"),
      "http://127.0.0.1:1/TallowboxRestService/MAC/SharedFiles.svc/GetSharedFilesTransferData");
  EXPECT_FALSE(RestConnector::getAbsoluteURL("a b"));
}
