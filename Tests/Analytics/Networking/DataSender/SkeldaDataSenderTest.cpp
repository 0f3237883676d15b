#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Platform/Foundation/TextCoding.h"
#include "Tests/Analytics/Networking/DataSender/SenderFixture.h"

namespace {

struct TaskDelegate : SkeldaURLSessionTaskDelegate, Recorded<bool> {
  void skeldaUrlRequestDidSucceed(const TaskRef&, const ResponseRef& to) override { end(true, to); }
  void skeldaUrlRequestDidFail(const TaskRef&, const ResponseRef& to) override { end(false, to); }
  void end(bool succeeded, const ResponseRef& response) {
    last = response;
    add(succeeded);
  }
  ResponseRef last;  // read once the end is recorded
};

struct SkeldaURLSessionTaskTest : SenderTest {
  std::shared_ptr<SkeldaURLSessionTask> post(const std::string& url, std::string body,
                                             std::int32_t redirectsLimit = 0) {
    delegate_ = std::make_shared<TaskDelegate>();
    auto task = SkeldaURLSessionTask::sendMethod(
        2, url, std::make_shared<const Data>(std::move(body)), {{"X-Key", "k"}}, delegate_, false);
    task->setRedirectsLimit(redirectsLimit);
    task->resumeTask();
    EXPECT_EQ(delegate_->wait(1).size(), 1u);
    return task;
  }
  std::shared_ptr<TaskDelegate> delegate_;
};

TEST_F(SkeldaURLSessionTaskTest, HasTheAnswerAndTellsTheNetworkProviderWhereThereIsNone) {
  LoopbackServer server([](auto& connection, auto& request) {
    connection.answer(std::stoi(request.target.substr(1)), "said", "X-A: b\r\n");
  });
  const auto provider = SkeldaNetworkReachabilityDataProvider::sharedInstance();
  post(server.url("/202"), "bytes");
  EXPECT_TRUE(delegate_->last->isSuccess());
  EXPECT_EQ(delegate_->last->statusCode(), 202);
  EXPECT_EQ(delegate_->last->headers().find("X-A")->description(), "b");
  post("http://127.0.0.1:1/", "bytes");
  EXPECT_FALSE(delegate_->all().front());
  EXPECT_EQ(delegate_->last->statusCode(), 0);
  const auto error = provider->lastNetworkOperationError();
  EXPECT_EQ(codeOf(error), kURLErrorCannotConnectToHost);
  EXPECT_TRUE(error->hasDomain(urlErrorDomain()));
  post(server.url("/500"), "bytes");
  EXPECT_EQ(provider->lastNetworkOperationError(), nullptr) << "an answer is no error";
  const auto without = SkeldaURLSessionTask::post(server.url("/204"), delegate_);
  EXPECT_EQ(delegate_->wait(2).size(), 2u);
  EXPECT_EQ(server.requests().back().method, "POST");
  const std::weak_ptr<SkeldaURLSessionTask> unstarted =
      SkeldaURLSessionTask::sendMethod(0, server.url(), nullptr, {}, {}, false);
  EXPECT_TRUE(unstarted.expired());
}

TEST_F(SkeldaURLSessionTaskTest, FollowsRedirectsUpToItsLimitAndA307WithTheFirstRequest) {
  LoopbackServer server([](auto& connection, auto& request) {
    const int path = std::stoi(request.target.substr(1));
    const int next = path == 303 ? 307 : path == 307 ? 0 : path - 1;
    if (path == 0) return connection.answer(200), void();
    const std::string location = "Location: /" + std::to_string(next) + "\r\n";
    connection.answer(path < 300 ? 302 : path, "", location);
  });
  const std::tuple<const char*, int, int, bool> cases[] = {
      {"/9", 0, 9, true}, {"/2", 2, 2, true}, {"/3", 2, 2, false}};
  for (const auto& [path, limit, followed, succeeds] : cases) {
    const auto task = post(server.url(path), "bytes", limit);
    EXPECT_EQ(task->redirectsCount(), followed) << path;
    EXPECT_EQ(delegate_->all().front(), succeeds) << path;
    EXPECT_EQ(delegate_->last->statusCode(), succeeds ? 200 : 302) << path;
  }
  // The 303 made a GET of it; the 307 goes back to what was asked first.
  post(server.url("/303"), "bytes");
  EXPECT_TRUE(delegate_->all().front());
  const auto requests = server.requests();
  EXPECT_EQ(requests[requests.size() - 2].method, "GET");
  EXPECT_EQ(requests.back().method, "POST");
  EXPECT_EQ(requests.back().body, "bytes");
  EXPECT_EQ(requests.back().field("x-key"), "k");
}

struct SkeldaDataSenderTest : SenderTest {
  /// Blocks since the last call: stored, acknowledged, rejected, over the limit, of another key,
  /// damaged.
  using Counts = std::array<std::uint64_t, 6>;
  Counts counted() {
    const auto& page = SkeldaAccounting::page();
    const auto removed = [&](SkeldaBlockRemoval of) { return at(page.blocksRemoved, of).load(); };
    using enum SkeldaBlockRemoval;
    const Counts now{page.blocksStored,  page.blocksAcknowledged, page.blocksRejected,
                     removed(overLimit), removed(otherKey),       removed(damaged)};
    Counts since = now;
    for (std::size_t i = 0; i < now.size(); ++i) since[i] -= std::exchange(counts_[i], now[i]);
    return since;
  }
  static void setNetworkReachable(bool reachable) {
    SkeldaNetworkReachabilityDataProvider::sharedInstance()->setConnectedToNetwork(reachable);
    NotificationCenter::defaultCenter().post(kSkeldaNetworkStatusChangedNotification);
  }

  Counts counts_{};
};

TEST_F(SkeldaDataSenderTest, PostsTheBytesAsTheyAreAndForgetsThemWhenTheyAreAccepted) {
  TestAuthority authority;
  LoopbackServer server(answering(202), {authority.issue()});
  sendTo(server);
  const auto sender = makeSender("the key");
  std::string body(5000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 7);
  std::atomic<int> completions = 0;
  EXPECT_FALSE(sender->everSentReportSuccessfully());
  EXPECT_TRUE(sender->sendFrameLogData(bytes(body), [&] { ++completions; }));
  ASSERT_TRUE(server.waitUntil([&] { return completions == 1; }));
  EXPECT_TRUE(blocks(sender).empty());
  EXPECT_TRUE(drain(sender->dataIndex()));
  EXPECT_TRUE(blockFiles().empty());
  EXPECT_TRUE(sender->everSentReportSuccessfully());
  ASSERT_EQ(server.requestCount(), 1u);
  const auto request = server.requests()[0];
  EXPECT_EQ(request.method + " " + request.target, "POST /v1/skd.do");
  EXPECT_TRUE(request.body == body);
  EXPECT_EQ(request.field("content-type"), "application/octet-stream");
  EXPECT_EQ(request.field("x-skelda-api-key"), "the key");
  EXPECT_EQ(request.fields.size(), 4u) << "host, length and these two";
  EXPECT_EQ(sender->dataKey(), "Data_" + std::to_string(stableHash("the key")) + "_261");
  EXPECT_FALSE(sender->sendFrameLogData(bytes("")));
  EXPECT_TRUE(blockFiles().empty());
}

TEST_F(SkeldaDataSenderTest, OnlyAcceptedAndMalformedDataIsForgotten) {
  // With 0 the connection is reset.
  for (const int status : {200, 299, 400, 300, 401, 404, 413, 429, 500, 503, 0}) {
    home_.empty();
    LoopbackServer server([&](auto& connection, auto&) {
      status != 0 ? static_cast<void>(connection.answer(status)) : connection.reset();
    });
    sendTo(server);
    const auto sender = makeSender();
    counted();
    auto& page = SkeldaAccounting::page();
    const std::uint64_t requests = page.requests, bytesSent = page.bytesSent;
    EXPECT_TRUE(sender->sendFrameLogData(bytes("log")));
    ASSERT_TRUE(server.waitForRequests(1));
    ASSERT_TRUE(server.waitUntil([&] { return isIdle(sender); }));
    EXPECT_EQ(blocks(sender).size(), status == 400 || status / 100 == 2 ? 0u : 1u) << status;
    EXPECT_EQ(sender->everSentReportSuccessfully(), status / 100 == 2) << status;
    EXPECT_EQ(server.requests().size(), 1u) << status;
    EXPECT_EQ(counted(), (Counts{1, status / 100 == 2, status == 400, 0, 0, 0}));
    EXPECT_EQ(page.requests, requests + 1);
    EXPECT_EQ(page.bytesSent, bytesSent + (status != 0 ? 3 : 0));
    EXPECT_TRUE(status == 0 || page.lastAnswer == static_cast<std::uint64_t>(status)) << status;
    finish();
  }
}

TEST_F(SkeldaDataSenderTest, WaitingBlocksGoOutAgainAfterASuccessOrWhenTheNetworkIsBack) {
  std::atomic<int> status = 500;
  LoopbackServer server([&](auto& connection, auto&) { connection.answer(status); });
  sendTo(server);
  const auto sender = makeSender();
  const auto idleAfter = [&](std::size_t requests) {
    return server.waitUntil([&] { return server.requestCount() == requests && isIdle(sender); });
  };
  for (const char* text : {"a", "b", "c"}) EXPECT_TRUE(sender->sendFrameLogData(bytes(text)));
  ASSERT_TRUE(idleAfter(3));
  setNetworkReachable(false);
  EXPECT_TRUE(isIdle(sender)) << "nothing is tried while there is no network";
  setNetworkReachable(true);
  ASSERT_TRUE(idleAfter(6));
  EXPECT_EQ(blocks(sender).size(), 3u);

  status = 200;
  EXPECT_TRUE(sender->sendFrameLogData(bytes("d")));
  ASSERT_TRUE(server.waitUntil([&] { return blocks(sender).empty(); }));
  EXPECT_EQ(server.requestCount(), 10u);
  EXPECT_TRUE(sender->dataIndex()->sentReportSuccessfully());
  status = 500;
  EXPECT_TRUE(sender->sendFrameLogData(bytes("e")));
  ASSERT_TRUE(idleAfter(11));
  EXPECT_FALSE(sender->dataIndex()->sentReportSuccessfully());
}

TEST_F(SkeldaDataSenderTest, ARestartSendsTheBlocksOfItsOwnKeyOnly) {
  LoopbackServer server([](auto& connection, auto& request) {
    connection.answer(request.field("x-skelda-api-key") == "down" ? 503 : 200);
  });
  sendTo(server);
  for (const bool sameKey : {true, false}) {
    home_.empty();
    EXPECT_TRUE(makeSender("down")->sendFrameLogData(bytes("stored")));
    finish();
    const std::size_t before = server.requestCount();
    const auto sender = makeSender(sameKey ? "down" : "other");
    counted();
    EXPECT_TRUE(sameKey || sender->sendFrameLogData(bytes("new")));
    setNetworkReachable(true);
    ASSERT_TRUE(server.waitUntil([&] { return server.requestCount() > before && isIdle(sender); }));
    EXPECT_EQ(server.requestCount(), before + 1);
    EXPECT_EQ(server.requests().back().body, sameKey ? "stored" : "new");
    EXPECT_EQ(blocks(sender).size(), sameKey ? 1u : 0u);
    EXPECT_EQ(counted(), (sameKey ? Counts{} : Counts{1, 1, 0, 0, 1, 0}));
    finish();
  }
}

TEST_F(SkeldaDataSenderTest, ABlockThatCannotBeReadIsDroppedOnlyWhenItsBytesAreGone) {
  LoopbackServer server(answering(200));
  SkeldaNetworkURLsDataProvider::sharedInstance()->setServerURL("http://127.0.0.1:1/");
  const auto sender = makeSender();
  counted();
  Texts identifiers;
  for (const char* text : {"whole", "missing", "truncated", "lengthened", "linked", "swapped"})
    identifiers.push_back(sender->storeData(bytes(text)).value_or(""));
  std::filesystem::remove(pathOf(identifiers[1]));
  writeFile(pathOf(identifiers[2]), "trunc");
  writeFile(pathOf(identifiers[3]), "lengthened by some");
  const std::string linked = pathOf(identifiers[4]);
  std::filesystem::rename(linked, home_ / "elsewhere");
  std::filesystem::create_symlink(home_ / "elsewhere", linked);
  {
    const FaultyFileCalls plan("open", Fault::always(EMFILE));
    sender->retransmitNotSentBlocks();
    EXPECT_TRUE(isIdle(sender));
    drain(sender->dataIndex());
  }
  EXPECT_GE(blocks(sender).size(), 1u);
  const FaultyFileCalls swapped(identifiers[5]);  // for a link, by the time that it is opened
  swapped->failAll("open", ELOOP);
  sendTo(server);
  sender->retransmitNotSentBlocks();
  ASSERT_TRUE(server.waitUntil([&] { return blocks(sender).empty() && isIdle(sender); }));
  EXPECT_EQ(counted(), (Counts{6, 1, 0, 0, 0, 5}));
  ASSERT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(server.requests()[0].body, "whole");
  finish();  // before the calls go
}

TEST_F(SkeldaDataSenderTest, DataThatCannotBeStoredIsRefusedAndLeavesNothing) {
  LoopbackServer server(answering(200));
  sendTo(server);
  const auto sender = makeSender();
  const std::pair<const char*, std::size_t> failing[] = {
      {"write", 1}, {"write", 2}, {"syncData", 1}, {"syncData", 2}, {"rename", 1}, {"rename", 2}};
  for (const auto& [kind, call] : failing) {
    const FaultyFileCalls plan;
    plan->failKind(kind, call, {.error = ENOSPC, .times = Fault::kForEver});
    EXPECT_FALSE(sender->sendFrameLogData(bytes("log"))) << kind << " " << call;
  }
  EXPECT_TRUE(blockFiles().empty());
  EXPECT_TRUE(blocks(sender).empty());
  EXPECT_EQ(server.connections(), 0u) << "what is not stored is not sent";
  // One write of the index that fails holds nothing up.
  const FaultyFileCalls plan;
  plan->failKind("write", 2, {EIO});
  EXPECT_TRUE(sender->sendFrameLogData(bytes("log")));
  EXPECT_EQ(plan->faults(), 1u);
  EXPECT_TRUE(server.waitForRequests(1));
  finish();  // before the calls go
}

TEST_F(SkeldaDataSenderTest, AHundredBlocksAreKeptAndNineUnderWayWhereNoRequestEverEnds) {
  LoopbackServer server(answeringWhenReleased());
  sendTo(server);
  const auto sender = makeSender();
  counted();
  for (int i = 0; i < 130; ++i) EXPECT_TRUE(sender->sendFrameLogData(bytes(std::to_string(i))));
  ASSERT_TRUE(server.waitUntil([&] { return server.held() == 9; }));
  EXPECT_EQ(blocks(sender).size(), 100u);
  EXPECT_EQ(log_.count("Skelda: discard outdated block id ["), 30u);
  std::set<std::string> expected, received;
  for (int i = 0; i < 130; ++i)
    if (i < 9 || i >= 39) expected.insert(std::to_string(i));
  const auto releaseUntil = [&](std::size_t left) {
    return server.waitUntil([&] {
      EXPECT_LE(server.held(), 9u);
      server.release();
      return blocks(sender).size() <= left;
    });
  };
  ASSERT_TRUE(releaseUntil(90));
  // Now the server takes them: a log that would push one out waits instead.
  std::size_t taken = 0;
  while (sender->sendFrameLogData(bytes("later " + std::to_string(taken))) && taken < 50)
    expected.insert("later " + std::to_string(taken++));
  EXPECT_GE(taken, 10u);
  EXPECT_LT(taken, 50u);
  ASSERT_TRUE(releaseUntil(0));
  for (const auto& request : server.requests()) received.insert(request.body);
  EXPECT_EQ(received, expected);
  EXPECT_EQ(server.requests().size(), expected.size()) << "none twice";
  EXPECT_EQ(counted(), (Counts{130 + taken, 100 + taken, 0, 30, 0, 0}));
}

TEST_F(SkeldaDataSenderTest, AnAddressThatIsNoneIsSaidOnceAndEveryLimitApplies) {
  const auto sender = makeSender();
  for (const char* url : {"localhost:18443", "no address", "/v1/skd.do", "file:///tmp/x", ""}) {
    SkeldaNetworkURLsDataProvider::sharedInstance()->setServerURL(url);
    EXPECT_EQ(SkeldaNetworkURLsDataProvider::sharedInstance()->serverURL(), url);
    const auto log = bytes(url + std::string("x"));
    for (int i = 0; i < 15; ++i) EXPECT_TRUE(sender->sendFrameLogData(log));
    EXPECT_EQ(log_.count("is no absolute http or https address"), 1u) << url;
    log_.take();
  }
  EXPECT_TRUE(becomes([&] { return isIdle(sender) && blocks(sender).size() == 50; }));
  LoopbackServer server(answering(200));
  sendTo(server);
  EXPECT_EQ(log_.count("is no absolute http or https address"), 0u);
  sender->retransmitNotSentBlocks();
  EXPECT_TRUE(server.waitUntil([&] { return blocks(sender).empty(); }));
}

TEST_F(SkeldaDataSenderTest, CancelledTasksKeepTheirBlocks) {
  LoopbackServer server(answeringWhenReleased());
  sendTo(server);
  const auto sender = makeSender();
  for (const char* text : {"a", "b"}) EXPECT_TRUE(sender->sendFrameLogData(bytes(text)));
  ASSERT_TRUE(server.waitUntil([&] { return server.held() == 2; }));
  EXPECT_TRUE(sender->storeData(bytes("c")));
  sender->retransmitNotSentBlocks();
  ASSERT_TRUE(server.waitUntil([&] { return server.held() == 3; })) << "beside those under way";
  sender->queue()->sync([&] { sender->cancelTasks(); });
  EXPECT_TRUE(isIdle(sender));
  ASSERT_TRUE(server.waitUntil([&] { return log_.count("Could not connect to server: ") == 3; }));
  EXPECT_TRUE(isIdle(sender)) << "the late ends find nothing to do";
  EXPECT_EQ(blocks(sender).size(), 3u);
  server.release();
}

}  // namespace
