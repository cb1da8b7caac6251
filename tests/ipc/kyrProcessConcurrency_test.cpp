// A server handle and a client handle in one process (these suites also run under
// ThreadSanitizer): the client's loop, the server's loop, the publisher's long polls and a
// request thread routing through the client all at once, across deltas, a full resend, stops
// and starts, and destroy.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>

#include "ipc/ipcTestSupport.h"
#include "support/memCount.h"
#include "support/testData.h"

namespace {

using namespace kyrtest;

// Routes the probes through a handle, over and over, until told to stop, counting each line
// of decisions it saw.
class RequestThread {
 public:
  explicit RequestThread(Kyr* kyr)
      : thread_([this, kyr] {
          while (!stop_) ++seen_[decisions(kyr)];
        }) {}
  ~RequestThread() { stop(); }
  // Everything seen, by how often.
  const std::map<std::string, int>& stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    return seen_;
  }

 private:
  std::atomic<bool> stop_{false};
  std::map<std::string, int> seen_;
  std::thread thread_;
};

class MultiProcessConcurrency : public ::testing::Test {
 protected:
  void SetUp() override {
    baseline_ = settledMemCount();
    stateChanges().clear();
    server_ = startServerProcess(serverHost_, dir_.path(), publisher_.url());
    ASSERT_NE(server_, nullptr);
    ASSERT_TRUE(eventually([&] { return kyrGetState(server_) == STARTED; }, kStepWait));
    client_ = startClientProcess(clientHost_, dir_.path());
    ASSERT_NE(client_, nullptr);
    ASSERT_TRUE(eventually([&] { return startedReports() == 1; }, kStepWait));
    ASSERT_TRUE(routesAsTheServer());
  }
  void TearDown() override {
    kyrDestroy(client_);
    kyrDestroy(server_);
  }

  int startedReports() {
    int n = 0;
    for (const StateChange& change : stateChanges().of(client_)) {
      n += change.state == STARTED && change.reason == "child process started";
    }
    return n;
  }
  bool routesAsTheServer() {
    std::string expected = decisions(server_);
    return eventually([&] { return decisions(client_) == expected; }, kStepWait);
  }
  // Pushes the document and waits until the server routes differently, then the client as it.
  void pushAndFollow(const std::string& document) {
    std::string before = decisions(server_);
    publisher_.pushDelta(document);
    ASSERT_TRUE(eventually([&] { return decisions(server_) != before; }, kStepWait));
    ASSERT_TRUE(routesAsTheServer());
  }

  int baseline_ = 0;
  SocketDir dir_;
  Publisher publisher_{readTestData("cell-routing.json")};
  TestHost serverHost_;
  TestHost clientHost_;
  Kyr* server_ = nullptr;
  Kyr* client_ = nullptr;
};

// Every request sees a whole model, before a change or after it: the complete document the
// publisher pushes last (its portal started again) reaches the client only as a rebuild.
TEST_F(MultiProcessConcurrency, RequestsRouteOnWholeModelsWhileDeltasAndAFullResendArrive) {
  std::string started = decisions(server_);
  RequestThread requests(client_);
  pushAndFollow(portalState("STOPPED"));
  std::string stopped = decisions(server_);
  for (int i = 0; i < 4; ++i) pushAndFollow(portalState(i % 2 == 0 ? "STARTED" : "STOPPED"));
  pushAndFollow(readTestData("cell-routing.json"));
  EXPECT_EQ(decisions(client_), started);
  pushAndFollow(portalState("STOPPED"));

  const std::map<std::string, int>& seen = requests.stop();
  EXPECT_GT(seen.size(), 1u);
  for (const auto& [line, count] : seen) {
    EXPECT_TRUE(line == started || line == stopped) << count << " requests saw " << line;
  }
}

TEST_F(MultiProcessConcurrency, ClientAndServerStopAndStartAgainWhileRequestsRoute) {
  RequestThread requests(client_);
  ASSERT_EQ(kyrStop(client_), 0);
  EXPECT_EQ(kyrGetState(client_), STOPPED);
  ASSERT_EQ(kyrStart(client_, -1), 0);
  EXPECT_TRUE(eventually([&] { return startedReports() == 2; }, kStepWait));

  ASSERT_EQ(kyrStop(server_), 0);
  ASSERT_TRUE(eventually([&] { return kyrGetState(server_) == STOPPED; }, kStepWait));
  EXPECT_EQ(kyrGetState(client_), STARTED);
  ASSERT_EQ(kyrStart(server_, -1), 0);
  ASSERT_TRUE(eventually([&] { return kyrGetState(server_) == STARTED; }, kStepWait));
  pushAndFollow(portalState("STOPPED"));
  requests.stop();
}

// The server goes first, so the client is destroyed in the middle of its reconnect attempts.
TEST_F(MultiProcessConcurrency, DestroyingBothHandlesGivesBackEveryBlock) {
  {
    RequestThread requests(client_);
    pushAndFollow(portalState("STOPPED"));
  }
  kyrDestroy(server_);
  server_ = nullptr;
  kyrDestroy(client_);
  client_ = nullptr;
  EXPECT_EQ(settledMemCount(), baseline_);
}

// A server whose publishers all failed is destroyed with a client connected: its loop ends and
// the socket stops accepting at destroy, and every block comes back once the pending retry
// (which holds the handle) has fired.
TEST(FailedServerConcurrency, DestroyEndsTheLoopOfAServerThatNeverStarted) {
  int baseline = settledMemCount();
  SocketDir dir;
  TestHost host;
  host.env.trace.printf = nullptr;
  Kyr* kyr = host.create();
  KyrConnectorGroup* cg = kyrConnectorGroupCreate(kyr, kGroup);
  kyrConnectorGroupSetProperty(cg, "retryInterval", "1");
  kyrConnectorCreate(cg, closedPortUrl().c_str());
  ASSERT_EQ(kyrMarkAsServerProcess(kyr, dir.path().c_str(), getuid()), 0);
  kyrStart(kyr, -1);
  ASSERT_TRUE(eventually([&] { return kyrGetState(kyr) == FAILED; }, kStepWait));
  int fd = connectTo(dir.path());
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(eventually(
      [&] { return kyrServerProcessGetClientCount(kyrGetServerProcess(kyr)) == 1; }, kStepWait));
  kyrDestroy(kyr);
  EXPECT_TRUE(closedByPeer(fd));
  close(fd);
  EXPECT_LT(connectTo(dir.path()), 0);
  EXPECT_TRUE(eventually([&] { return settledMemCount() == baseline; }, kStepWait));
}

}  // namespace
