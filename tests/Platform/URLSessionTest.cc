#include "Platform/URLSession.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "Platform/CurlEngine.h"
#include "Platform/DispatchQueues.h"
#include "Platform/Environment.h"
#include "ReferenceServer.h"
#include "support/RawReplyServer.h"
#include "support/SentHeaders.h"
#include "support/Sha256.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

using namespace std::chrono_literals;

namespace {

struct Outcome {
  std::string data;
  std::optional<URLResponse> response;
  std::optional<PlatformError> error;
  bool onMainQueue = false;
};

URLSession::DelegateQueue mainQueue() {
  return [](Scheduler::Work work) { DispatchQueues::shared().dispatchMain(std::move(work)); };
}

class Recorder : public URLSessionDelegate {
 public:
  struct Step {
    std::int64_t sent, total, expected;
  };
  void didReceiveData(URLSessionTask& /*task*/, const std::string& data) override {
    std::lock_guard lock(mutex);
    received += data;
    pieces.push_back(data.size());
  }
  void didSendBodyData(URLSessionTask& /*task*/, std::int64_t sent, std::int64_t total,
                       std::int64_t expected) override {
    std::lock_guard lock(mutex);
    sentSum += sent;
    lastTotal = total;
    lastExpected = expected;
    steps.push_back({sent, total, expected});
  }
  void didCompleteWithError(URLSessionTask& /*task*/,
                            const std::optional<PlatformError>& error) override {
    done.set_value(error);
  }
  std::mutex mutex;
  std::string received;
  std::int64_t sentSum = 0, lastTotal = 0, lastExpected = 0;
  std::vector<std::size_t> pieces;  // the size of each didReceiveData's data
  std::vector<Step> steps;          // each didSendBodyData
  std::promise<std::optional<PlatformError>> done;
};

// A recorder that takes no data until it is let go.
class HeldRecorder : public Recorder {
 public:
  void didReceiveData(URLSessionTask& task, const std::string& data) override {
    gate.wait();
    Recorder::didReceiveData(task, data);
  }
  std::promise<void> letGo;
  std::shared_future<void> gate = letGo.get_future().share();
};

class URLSessionTest : public ::testing::Test {
 protected:
  ScopedEnvironment environment;
  SentHeaders sent{environment};
  void SetUp() override { server.start(); }

  URLRequest post(const std::string& operation, std::string body = "{}") const {
    URLRequest request;
    request.url = server.baseURL() + operation;
    request.httpMethod = "POST";
    request.httpBody = std::move(body);
    return request;
  }

  Outcome run(const std::function<std::shared_ptr<URLSessionTask>(
                  const std::shared_ptr<URLSession>&, URLSessionTask::Completion)>& make,
              URLSessionConfiguration configuration = {}) {
    auto session = URLSession::sessionWithConfiguration(configuration, {}, mainQueue());
    std::promise<Outcome> promise;
    auto task = make(session, [&](const std::string& data, const std::optional<URLResponse>& r,
                                  const std::optional<PlatformError>& e) {
      promise.set_value({data, r, e, DispatchQueues::shared().isMainQueueThread()});
    });
    task->resume();
    auto future = promise.get_future();
    if (future.wait_for(30s) != std::future_status::ready) throw std::runtime_error("no report");
    return future.get();
  }

  Outcome runData(URLRequest request, URLSessionConfiguration configuration = {}) {
    return run([&](const auto& session,
                   auto done) { return session->dataTaskWithRequest(request, std::move(done)); },
               std::move(configuration));
  }

  // What a task whose answer goes to a delegate handed it, and how it ended.
  struct Streamed {
    std::string received;
    std::optional<PlatformError> error;
    std::vector<std::size_t> pieces;
  };
  static Streamed stream(URLRequest request) {
    auto recorder = std::make_shared<Recorder>();
    auto session = URLSession::sessionWithConfiguration({}, recorder, mainQueue());
    auto task = session->dataTaskWithRequest(std::move(request));
    task->resume();
    auto done = recorder->done.get_future();
    if (done.wait_for(30s) != std::future_status::ready) throw std::runtime_error("no report");
    std::optional<PlatformError> error = done.get();
    std::lock_guard lock(recorder->mutex);
    return {recorder->received, error, recorder->pieces};
  }

  ReferenceServer server;
  TemporaryFolder folder;
};

// Accepts one connection on loopback and keeps what the client sent.

}  // namespace

TEST_F(URLSessionTest, DataTaskDeliversTheWholeAnswerAndResponseOnTheDelegateQueue) {
  server.script("Echo", ReferenceServer::json({{"ReturnStatus", "0"}, {"x", 1}}, 500));
  URLRequest request = post("Echo", R"({"a":"b"})");
  request.setValueForHTTPHeaderField("application/json", "Content-Type");
  Outcome outcome = runData(request);
  EXPECT_FALSE(outcome.error);
  EXPECT_TRUE(outcome.onMainQueue);
  EXPECT_EQ(outcome.data, R"({"ReturnStatus":"0","x":1})");
  ASSERT_TRUE(outcome.response);
  EXPECT_EQ(outcome.response->statusCode, 500);
  auto seen = server.requestsFor("Echo");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(seen[0].body, R"({"a":"b"})");
  EXPECT_EQ(seen[0].header("Content-Type"), "application/json");
}

TEST_F(URLSessionTest, DelegateThatFallsBehindPausesTheTransferAndStillGetsEveryByteInOrder) {
  std::string body(32U << 20U, '\0');
  for (std::size_t i = 0; i < body.size(); ++i)
    body[i] = static_cast<char>((i * 7 + i / 4093) & 0xFF);
  server.script("Big", ReferenceServer::raw(body));
  auto recorder = std::make_shared<HeldRecorder>();
  auto session = URLSession::sessionWithConfiguration(URLSessionConfiguration{},
                                                      std::weak_ptr<URLSessionDelegate>(recorder));
  auto task = session->dataTaskWithRequest(post("Big"));
  task->resume();
  ASSERT_TRUE(waitUntil([&] { return task->isWaitingForDelegate(); }))
      << "a delegate that takes nothing holds the transfer back";
  recorder->letGo.set_value();
  auto done = recorder->done.get_future();
  ASSERT_EQ(done.wait_for(60s), std::future_status::ready);
  EXPECT_FALSE(done.get());
  std::lock_guard lock(recorder->mutex);
  EXPECT_TRUE(recorder->received == body) << recorder->received.size() << " bytes, in order";
  EXPECT_FALSE(task->isWaitingForDelegate());
}

TEST_F(URLSessionTest, HeadersGoOutAsGivenInOrderWithoutExpectAndSessionHeadersAfter) {
  URLRequest request = post("MAC/Order.svc/Check", std::string(5000, 'b'));  // curl wants Expect
  request.headers.clear();
  request.setValueForHTTPHeaderField("5000", "Content-Length");
  request.setValueForHTTPHeaderField("zeta", "Z-Header");
  request.setValueForHTTPHeaderField("application/json", "Content-Type");
  request.setValueForHTTPHeaderField("alpha", "A-Header");
  URLSessionConfiguration configuration;
  configuration.HTTPAdditionalHeaders = {{"Accept", "application/json"},
                                         {"Content-Type", "text/plain"}};
  Outcome outcome = runData(request, configuration);
  EXPECT_FALSE(outcome.error);
  auto seen = server.requestsFor("MAC/Order.svc/Check");
  ASSERT_EQ(seen.size(), 1U);
  std::vector<std::string> names;
  for (const auto& [name, value] : sent.of("MAC/Order.svc/Check")) {
    if (name != "Host") names.push_back(name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"Content-Length", "Z-Header", "Content-Type",
                                             "A-Header", "Accept"}));
  EXPECT_EQ(seen[0].header("Content-Type"), "application/json") << "the request's own value wins";
  EXPECT_EQ(seen[0].body.size(), 5000U);
}

TEST_F(URLSessionTest, StreamedUploadSendsTheFileFromItsOffsetChunkedAndReportsProgress) {
  std::string content;
  for (int i = 0; i < 200000; ++i) content += static_cast<char>('a' + i % 26);
  std::ofstream(folder.file("f.bin"), std::ios::binary) << content;
  URLRequest request = post("MAC/SharedFiles.svc/UploadFileWithStream", "");
  request.setValueForHTTPHeaderField("application/octet-stream", "Content-Type");
  request.httpBodyStream = std::make_shared<InputStream>(folder.file("f.bin"), 1000);
  auto recorder = std::make_shared<Recorder>();
  auto session = URLSession::sessionWithConfiguration({}, recorder, mainQueue());
  auto task = session->uploadTaskWithStreamedRequest(request);
  task->resume();
  auto done = recorder->done.get_future();
  ASSERT_EQ(done.wait_for(30s), std::future_status::ready);
  EXPECT_FALSE(done.get());
  auto seen = server.requestsFor("MAC/SharedFiles.svc/UploadFileWithStream");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].body, content.substr(1000));
  EXPECT_EQ(seen[0].header("Transfer-Encoding"), "chunked");
  EXPECT_EQ(seen[0].header("Content-Length"), "");
  std::lock_guard lock(recorder->mutex);
  EXPECT_EQ(recorder->received, R"({"ReturnStatus":"0"})");
  EXPECT_GE(recorder->sentSum, 199000);
  EXPECT_EQ(recorder->sentSum, recorder->lastTotal);
}

TEST_F(URLSessionTest, AnswerOf16MiBReachesItsDelegateInPiecesOfAtMostOneMiBAddingUpToEveryByte) {
  std::string body(16U << 20U, '\0');
  for (std::size_t i = 0; i < body.size(); ++i)
    body[i] = static_cast<char>((i * 11 + i / 65521) & 0xFF);
  server.script("Sixteen", ReferenceServer::raw(body));

  Streamed streamed = stream(post("Sixteen"));

  EXPECT_FALSE(streamed.error);
  ASSERT_EQ(streamed.received.size(), 16777216U);
  EXPECT_TRUE(streamed.received == body) << "every byte, in order";
  std::size_t sum = 0;
  for (std::size_t piece : streamed.pieces) {
    EXPECT_GT(piece, 0U);
    EXPECT_LE(piece, 1048576U);
    sum += piece;
  }
  EXPECT_EQ(sum, 16777216U);
  EXPECT_GE(streamed.pieces.size(), 16U);
}

TEST_F(URLSessionTest, StreamedUploadOf16MiBReportsItsProgressInAHandfulOfStepsEndingAtItsSize) {
  const std::string path = folder.file("sixteen.bin");
  {
    std::string block(1U << 20U, '\0');
    std::ofstream out(path, std::ios::binary);
    for (std::size_t m = 0; m < 16; ++m) {
      for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>((i * 5 + m * 7 + i / 4099) & 0xFF);
      out.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
  }
  URLRequest request = post("MAC/SharedFiles.svc/UpdateSendFileToTransfer", "");
  request.setValueForHTTPHeaderField("application/octet-stream", "Content-Type");
  request.setValueForHTTPHeaderField("T16", "SharedFileTransferID");
  request.setValueForHTTPHeaderField("16777216", "Length");
  request.httpBodyStream = std::make_shared<InputStream>(path, 0);
  auto recorder = std::make_shared<Recorder>();
  auto session = URLSession::sessionWithConfiguration({}, recorder, mainQueue());
  auto task = session->uploadTaskWithStreamedRequest(request);
  task->resume();
  auto done = recorder->done.get_future();
  ASSERT_EQ(done.wait_for(60s), std::future_status::ready);
  EXPECT_FALSE(done.get());

  nlohmann::json held = server.state().snapshot()["transfers"]["T16"];
  EXPECT_EQ(held["length"], 16777216);
  EXPECT_EQ(held["sha256"], sha256Of(path)) << "the server holds the file byte for byte";
  std::lock_guard lock(recorder->mutex);
  ASSERT_FALSE(recorder->steps.empty());
  EXPECT_LE(recorder->steps.size(), 6U) << "a step per 3 MiB at most, and one at the end";
  std::int64_t before = 0;
  for (std::size_t i = 0; i < recorder->steps.size(); ++i) {
    const Recorder::Step& step = recorder->steps[i];
    EXPECT_GT(step.total, before) << "step " << i;
    EXPECT_EQ(step.sent, step.total - before) << "step " << i;
    EXPECT_EQ(step.expected, -1) << "a stream's length is unknown until its end";
    if (i + 1 < recorder->steps.size()) {
      EXPECT_GE(step.sent, 3145728) << "step " << i;
    }
    before = step.total;
  }
  EXPECT_EQ(recorder->steps.back().total, 16777216);
  EXPECT_EQ(recorder->sentSum, 16777216);
}

TEST_F(URLSessionTest, UploadFromFileSendsItsLengthAndDownloadHandsOverAFileRemovedAfterwards) {
  std::ofstream(folder.file("up.txt")) << "file body";
  Outcome uploaded = run([&](const auto& session, auto done) {
    return session->uploadTaskWithRequest(post("Up", ""), folder.file("up.txt"), std::move(done));
  });
  EXPECT_FALSE(uploaded.error);
  auto seen = server.requestsFor("Up");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].body, "file body");
  EXPECT_EQ(seen[0].header("Content-Length"), "9");

  Outcome missing = run([&](const auto& session, auto done) {
    return session->uploadTaskWithRequest(post("Up", ""), folder.file("none"), std::move(done));
  });
  ASSERT_TRUE(missing.error);
  EXPECT_EQ(missing.error->code(), -1100);

  // The reference server answers POST only: a GET download gets its 404 page.
  std::string location;
  std::string contents;
  auto session = URLSession::sessionWithConfiguration({}, {}, mainQueue());
  std::promise<void> finished;
  auto task = session->downloadTaskWithURL(
      server.baseURL() + "Down",
      [&](const std::string& path, const std::optional<URLResponse>& response,
          const std::optional<PlatformError>& error) {
        EXPECT_FALSE(error);
        EXPECT_EQ(response->statusCode, 404);
        location = path;
        EXPECT_TRUE(std::filesystem::exists(path));
        finished.set_value();
      });
  task->resume();
  finished.get_future().wait();
  std::promise<void> later;
  DispatchQueues::shared().dispatchMain([&] { later.set_value(); });
  later.get_future().wait();
  EXPECT_FALSE(location.empty());
  EXPECT_FALSE(std::filesystem::exists(location)) << "removed once the handler returned";
}

TEST_F(URLSessionTest, TransportFailuresMapToThePlatformCodes) {
  server.script("Drop", [] {
    auto reply = ReferenceServer::raw(std::string(10000, 'x'));
    reply.dropAfter = 100;
    return reply;
  }());
  server.script("Slow", [] {
    ReferenceServer::Reply reply;
    reply.delay = 3s;
    return reply;
  }());
  server.script("Endless", [] {
    ReferenceServer::Reply reply;
    reply.neverEnds = true;
    return reply;
  }());

  Outcome dropped = runData(post("Drop"));
  ASSERT_TRUE(dropped.error);
  EXPECT_EQ(dropped.error->code(), -1005);
  EXPECT_EQ(dropped.error->domain(), "NSURLErrorDomain");

  URLRequest slow = post("Slow");
  slow.timeoutInterval = 1;
  Outcome timedOut = runData(slow);
  ASSERT_TRUE(timedOut.error);
  EXPECT_EQ(timedOut.error->code(), -1001);

  URLSessionConfiguration shortResource;
  shortResource.timeoutIntervalForResource = 1.5;
  Outcome endless = runData(post("Endless"), shortResource);
  ASSERT_TRUE(endless.error);
  EXPECT_EQ(endless.error->code(), -1001);

  ReferenceServer closed;
  int port = closed.start();
  closed.stop();
  URLRequest refused = post("X");
  refused.url = "http://127.0.0.1:" + std::to_string(port) + "/TallowboxRestService/X";
  Outcome refusedOutcome = runData(refused);
  ASSERT_TRUE(refusedOutcome.error);
  EXPECT_EQ(refusedOutcome.error->code(), -1004);

  URLRequest malformed = post("X");
  malformed.url = "ftp://127.0.0.1/";
  Outcome unsupported = runData(malformed);
  ASSERT_TRUE(unsupported.error);
  EXPECT_EQ(unsupported.error->code(), -1002);

  Environment::injectTransferFailure(-1);
  Outcome injected = runData(post("Echo"));
  ASSERT_TRUE(injected.error);
  EXPECT_EQ(injected.error->code(), -1);
}

TEST_F(URLSessionTest, CancelEndsTheTaskWithMinus999AndSuspendHoldsItUntilResume) {
  server.script("Slow", [] {
    ReferenceServer::Reply reply;
    reply.delay = 10s;
    return reply;
  }());
  Outcome cancelled = run([&](const auto& session, auto done) {
    auto task = session->dataTaskWithRequest(post("Slow"), std::move(done));
    task->resume();
    task->cancel();
    return task;
  });
  ASSERT_TRUE(cancelled.error);
  EXPECT_EQ(cancelled.error->code(), -999);

  std::shared_ptr<URLSessionTask> task;
  Outcome resumed = run([&](const auto& session, auto done) {
    task = session->dataTaskWithRequest(post("Echo"), std::move(done));
    task->resume();
    task->suspend();
    EXPECT_EQ(task->state(), URLSessionTask::State::kSuspended);
    return task;  // run() resumes it
  });
  EXPECT_FALSE(resumed.error);
  EXPECT_EQ(task->state(), URLSessionTask::State::kCompleted);
}

TEST_F(URLSessionTest, SessionAndTaskAreReleasedOnceTheExchangeHasReported) {
  std::weak_ptr<URLSession> weakSession;
  std::weak_ptr<URLSessionTask> weakTask;
  std::promise<void> reported;
  {
    auto session = URLSession::sessionWithConfiguration({}, {}, mainQueue());
    auto task = session->dataTaskWithRequest(
        post("Echo"),
        [&reported, session](const std::string&, const std::optional<URLResponse>&,
                             const std::optional<PlatformError>&) { reported.set_value(); });
    weakSession = session;
    weakTask = task;
    task->resume();
  }
  reported.get_future().wait();
  waitUntil([&] { return weakSession.expired() && weakTask.expired(); });
  EXPECT_TRUE(weakSession.expired());
  EXPECT_TRUE(weakTask.expired());
  EXPECT_EQ(CurlEngine::shared().activeTransfers(), 0U);
}

TEST_F(URLSessionTest, ConnectionsPerHostLimitHoldsTasksBackUntilOneEnds) {
  server.script("Slow", [] {
    ReferenceServer::Reply reply;
    reply.delay = 1s;
    return reply;
  }());
  URLSessionConfiguration oneAtATime;
  oneAtATime.HTTPMaximumConnectionsPerHost = 1;
  auto session = URLSession::sessionWithConfiguration(oneAtATime, {}, mainQueue());
  std::promise<void> firstDone;
  std::promise<void> secondDone;
  auto first = session->dataTaskWithRequest(
      post("Slow"), [&](const std::string&, const std::optional<URLResponse>&,
                        const std::optional<PlatformError>&) { firstDone.set_value(); });
  auto second = session->dataTaskWithRequest(
      post("Slow"), [&](const std::string&, const std::optional<URLResponse>&,
                        const std::optional<PlatformError>&) { secondDone.set_value(); });
  first->resume();
  second->resume();
  firstDone.get_future().wait();
  secondDone.get_future().wait();
  auto seen = server.requestsFor("Slow");
  ASSERT_EQ(seen.size(), 2U);
  EXPECT_GE(seen[1].at - seen[0].at, 1s) << "the second went only once the first was answered";

  // Without the limit both go at once.
  auto open = URLSession::sessionWithConfiguration({}, {}, mainQueue());
  server.clearRequests();
  std::promise<void> a;
  std::promise<void> b;
  auto ta = open->dataTaskWithRequest(post("Slow"), [&](auto&&...) { a.set_value(); });
  auto tb = open->dataTaskWithRequest(post("Slow"), [&](auto&&...) { b.set_value(); });
  ta->resume();
  tb->resume();
  waitUntil([&] { return server.requestsFor("Slow").size() >= 2; });
  EXPECT_EQ(server.requestsFor("Slow").size(), 2U);
  a.get_future().wait();
  b.get_future().wait();
}

TEST_F(URLSessionTest, ErrorAnswerToARequestRequiringSuccessEndsWith1011AndHandsOnNoByteOfIt) {
  std::string file(600000, '\0');
  for (std::size_t i = 0; i < file.size(); ++i)
    file[i] = static_cast<char>((i * 13 + i / 997) & 0xFF);
  server.script("File", ReferenceServer::raw(file));
  server.script("Json500",
                ReferenceServer::json({{"ReturnStatus", "1"}, {"Message", "boom"}}, 500));
  ReferenceServer::Reply page =
      ReferenceServer::raw("<html><body><h1>502 Bad Gateway</h1></body></html>", "text/html");
  page.status = 502;
  server.script("Page502", page);
  ReferenceServer::Reply empty = ReferenceServer::raw("");
  empty.status = 500;
  server.script("Empty500", empty);
  auto required = [&](const std::string& operation) {
    URLRequest request = post(operation);
    request.requiresSuccessfulStatus = true;
    return request;
  };

  for (const char* operation : {"Json500", "Page502", "Empty500"}) {
    Streamed refused = stream(required(operation));
    ASSERT_TRUE(refused.error) << operation;
    EXPECT_EQ(refused.error->code(), -1011) << operation;
    EXPECT_EQ(refused.error->domain(), "NSURLErrorDomain") << operation;
    EXPECT_EQ(refused.received, "") << operation << ": the error page is no file";
  }
  Outcome handled = runData(required("Page502"));
  ASSERT_TRUE(handled.error);
  EXPECT_EQ(handled.error->code(), -1011);
  EXPECT_EQ(handled.error->localizedDescription(), "bad server response: HTTP 502");
  EXPECT_EQ(handled.data, "") << "a completion handler is not handed the page either";
  ASSERT_TRUE(handled.response);
  EXPECT_EQ(handled.response->statusCode, 502);

  Streamed whole = stream(required("File"));
  EXPECT_FALSE(whole.error);
  EXPECT_TRUE(whole.received == file) << whole.received.size() << " bytes";

  // A redirect curl follows is no error answer, and its own body is not handed on.
  RawReplyServer moved;
  moved.setReply("HTTP/1.1 307 Temporary Redirect\r\nLocation: " + server.baseURL() +
                 "File\r\nContent-Length: 5\r\nConnection: close\r\n\r\nmoved");
  URLRequest redirected = required("File");
  redirected.url = moved.baseURL() + "Moved";
  Streamed followed = stream(redirected);
  EXPECT_FALSE(followed.error);
  EXPECT_TRUE(followed.received == file) << followed.received.size() << " bytes";

  // Without the flag an error answer is data like any other.
  Streamed unflagged = stream(post("Json500"));
  EXPECT_FALSE(unflagged.error);
  EXPECT_EQ(unflagged.received, R"({"Message":"boom","ReturnStatus":"1"})");
}
