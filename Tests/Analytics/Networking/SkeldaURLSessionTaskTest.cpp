#include "Analytics/Networking/DataSender/SkeldaURLSessionTask.h"

#include "Tests/Analytics/Networking/SenderFixture.h"

namespace skelda::testing {
namespace {

class TaskDelegate : public SkeldaURLSessionTaskDelegate {
 public:
  void skeldaUrlRequestDidSucceed(const TaskRef&, const ResponseRef& response) override {
    end(true, response);
  }
  void skeldaUrlRequestDidFail(const TaskRef&, const ResponseRef& response) override {
    end(false, response);
  }
  bool wait() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [this] { return ends == 1; });
  }

  int ends = 0;
  bool succeeded = false;
  ResponseRef last;

 private:
  void end(bool success, const ResponseRef& response) {
    std::lock_guard lock(mutex_);
    ++ends;
    succeeded = success;
    last = response;
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
};

class SkeldaURLSessionTaskTest : public SenderTest {
 protected:
  std::shared_ptr<SkeldaURLSessionTask> post(const std::string& url, std::string body,
                                             std::int32_t redirectsLimit = 0) {
    delegate_ = std::make_shared<TaskDelegate>();
    auto task = SkeldaURLSessionTask::sendMethod(
        2, url, std::make_shared<const platform::Data>(std::move(body)), {{"X-Key", "k"}},
        delegate_, false);
    task->setRedirectsLimit(redirectsLimit);
    task->resumeTask();
    EXPECT_TRUE(delegate_->wait());
    return task;
  }
  std::shared_ptr<TaskDelegate> delegate_;
};

TEST_F(SkeldaURLSessionTaskTest, SucceedsFrom200To299AndTellsTheNetworkProviderOtherwise) {
  LoopbackServer server([](ServerConnection& connection, const ReceivedRequest& request) {
    connection.answer(std::stoi(request.target.substr(1)), "said", "X-A: b\r\n");
  });
  const auto provider = SkeldaNetworkReachabilityDataProvider::sharedInstance();
  for (const auto& [status, success] :
       {std::pair{200, true}, {299, true}, {300, false}, {400, false}, {500, false}}) {
    post(server.url("/" + std::to_string(status)), "bytes");
    EXPECT_EQ(delegate_->succeeded, success) << status;
    EXPECT_EQ(delegate_->last->isSuccess(), success);
    EXPECT_EQ(delegate_->last->statusCode(), status);
    EXPECT_EQ(delegate_->last->headers().find("X-A")->description(), "b");
    EXPECT_EQ(delegate_->last->description(),
              "Status: " + std::to_string(status) + " error: (null) body: said");
  }
  post("http://127.0.0.1:1/", "bytes");
  EXPECT_FALSE(delegate_->succeeded);
  EXPECT_EQ(delegate_->last->statusCode(), 0);
  const auto error = provider->lastNetworkOperationError();
  ASSERT_NE(error, nullptr);
  EXPECT_TRUE(error->hasDomain(platform::urlErrorDomain()));
  EXPECT_EQ(error->code(), platform::kURLErrorCannotConnectToHost);
  post(server.url("/500"), "bytes");
  EXPECT_EQ(provider->lastNetworkOperationError(), nullptr) << "an answer is no error";
}

TEST_F(SkeldaURLSessionTaskTest, FollowsRedirectsUpToItsLimitAndA307WithTheFirstRequest) {
  LoopbackServer server([](ServerConnection& connection, const ReceivedRequest& request) {
    const std::string path = request.target;
    if (path == "/end") return connection.answer(200), void();
    if (path == "/303then307") {
      return connection.answer(303, "", "Location: /307\r\n"), void();
    }
    if (path == "/307") return connection.answer(307, "", "Location: /end\r\n"), void();
    const int left = std::stoi(path.substr(1));
    connection.answer(302, "",
                      "Location: /" + (left == 1 ? "end" : std::to_string(left - 1)) + "\r\n");
  });
  const struct {
    const char* path;
    int limit;
    int followed;
    bool succeeds;
  } cases[] = {{"/30", 0, 30, true}, {"/2", 2, 2, true}, {"/3", 2, 2, false}};
  for (const auto& one : cases) {
    const auto task = post(server.url(one.path), "bytes", one.limit);
    EXPECT_EQ(task->redirectsCount(), one.followed) << one.path;
    EXPECT_EQ(delegate_->succeeded, one.succeeds) << one.path;
    if (!one.succeeds) {
      EXPECT_EQ(delegate_->last->statusCode(), 302);
    }
  }
  // The 303 made a GET of it; the 307 goes back to what was asked first.
  post(server.url("/303then307"), "bytes");
  EXPECT_TRUE(delegate_->succeeded);
  const auto requests = server.requests();
  EXPECT_EQ(requests[requests.size() - 2].method, "GET");
  EXPECT_EQ(requests.back().method, "POST");
  EXPECT_EQ(requests.back().body, "bytes");
  EXPECT_EQ(requests.back().field("x-key"), "k");
}

TEST_F(SkeldaURLSessionTaskTest, LogsShortBodiesThatAreText) {
  LoopbackServer server(
      [](ServerConnection& connection, const ReceivedRequest&) { connection.answer(200); });
  post(server.url(), std::string(1999, 'a'));
  EXPECT_EQ(log_.count("Skelda: (1999 bytes) " + std::string(1999, 'a')), 1u);
  post(server.url(), std::string(2000, 'a'));
  EXPECT_EQ(log_.count("Skelda: (2000 bytes) Body is too long to display"), 1u);
  post(server.url(), "\xff");
  EXPECT_EQ(log_.count("Skelda: (1 bytes) (null)"), 1u);
  EXPECT_EQ(log_.count("[SkeldaURLSessionTask sendMethod] POST: " + server.url()), 3u);
}

TEST_F(SkeldaURLSessionTaskTest, AnUnstartedTaskIsFreedAndWhatIsNoURLMakesNone) {
  EXPECT_EQ(SkeldaURLSessionTask::get("not a url", {}), nullptr);
  EXPECT_EQ(SkeldaURLSessionTask::get("", {}), nullptr);
  std::weak_ptr<SkeldaURLSessionTask> weak;
  {
    const auto task =
        SkeldaURLSessionTask::sendMethod(0, "http://127.0.0.1:1/", nullptr, {}, {}, false);
    weak = task;
  }
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(SkeldaURLSessionTask::httpMethodToString(6), "CONNECT");
  EXPECT_EQ(SkeldaURLSessionTask::httpMethodToString(7), "");
}

}  // namespace
}  // namespace skelda::testing
