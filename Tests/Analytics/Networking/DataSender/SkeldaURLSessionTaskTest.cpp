#include "Analytics/Networking/DataSender/SkeldaURLSessionTask.h"

#include "Tests/Analytics/Networking/DataSender/SenderFixture.h"
#include "Tests/Support/Recorded.h"

namespace skelda::testing {
namespace {

class TaskDelegate : public SkeldaURLSessionTaskDelegate, public Recorded<bool> {
 public:
  void skeldaUrlRequestDidSucceed(const TaskRef&, const ResponseRef& response) override {
    last = response;
    add(true);
  }
  void skeldaUrlRequestDidFail(const TaskRef&, const ResponseRef& response) override {
    last = response;
    add(false);
  }
  ResponseRef last;  // read once the end is recorded
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
    EXPECT_EQ(delegate_->wait(1).size(), 1u);
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
    EXPECT_EQ(delegate_->all().front(), success) << status;
    EXPECT_EQ(delegate_->last->isSuccess(), success);
    EXPECT_EQ(delegate_->last->statusCode(), status);
    EXPECT_EQ(delegate_->last->headers().find("X-A")->description(), "b");
  }
  post("http://127.0.0.1:1/", "bytes");
  EXPECT_FALSE(delegate_->all().front());
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
  } cases[] = {{"/9", 0, 9, true}, {"/2", 2, 2, true}, {"/3", 2, 2, false}};
  for (const auto& one : cases) {
    const auto task = post(server.url(one.path), "bytes", one.limit);
    EXPECT_EQ(task->redirectsCount(), one.followed) << one.path;
    EXPECT_EQ(delegate_->all().front(), one.succeeds) << one.path;
    if (!one.succeeds) {
      EXPECT_EQ(delegate_->last->statusCode(), 302);
    }
  }
  // The 303 made a GET of it; the 307 goes back to what was asked first.
  post(server.url("/303then307"), "bytes");
  EXPECT_TRUE(delegate_->all().front());
  const auto requests = server.requests();
  EXPECT_EQ(requests[requests.size() - 2].method, "GET");
  EXPECT_EQ(requests.back().method, "POST");
  EXPECT_EQ(requests.back().body, "bytes");
  EXPECT_EQ(requests.back().field("x-key"), "k");
}

TEST_F(SkeldaURLSessionTaskTest, AnUnstartedTaskIsFreedAndWhatIsNoURLFails) {
  for (const char* url : {"not a url", "", "localhost:18443"}) {
    post(url, "bytes");
    EXPECT_FALSE(delegate_->all().front()) << url;
    EXPECT_NE(delegate_->last->error(), nullptr) << url;
  }
  std::weak_ptr<SkeldaURLSessionTask> weak;
  {
    const auto task =
        SkeldaURLSessionTask::sendMethod(0, "http://127.0.0.1:1/", nullptr, {}, {}, false);
    weak = task;
  }
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace skelda::testing
