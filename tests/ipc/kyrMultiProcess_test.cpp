// Several worker processes sharing one model: client processes (and the server process, where
// a test kills it) forked from the test, talking over a unix-domain socket in a temporary
// directory; the server process is fed by a loopback publisher. Raw connections stand in for
// client processes where a test needs to say exactly what a client sends.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ipcTestSupport.h"
#include "ipc/kyrMessage.h"
#include "support/testData.h"

namespace {

using namespace kyrtest;

constexpr const char* kStarted = "STARTING starting, STARTED child process started";

// A publisher serving cell-routing.json, client processes forked before the test process has a
// handle of its own, and (once started) a server process in the test process.
class MultiProcess : public ::testing::Test {
 protected:
  ~MultiProcess() override { kyrDestroy(server_); }
  void SetUp() override {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer does not let a child of a threaded process start threads";
#endif
#ifdef __SANITIZE_ADDRESS__
    // The publisher's thread runs while the clients are forked; the sanitizer's allocator has
    // no fork handler here, so a child can inherit it locked and hang at its first allocation.
    // The same code runs under this sanitizer in MultiProcessConcurrency, without forks.
    GTEST_SKIP() << "AddressSanitizer's allocator is not safe to fork from a threaded process";
#endif
  }

  void forkClients(int count) {
    for (int i = 0; i < count; ++i) {
      clients_.push_back(std::make_unique<Child>(
          [path = dir_.path()](Child::Link& link) { runClientProcess(link, path); }));
    }
  }
  std::unique_ptr<Child> forkServer() {
    return std::make_unique<Child>([path = dir_.path(), url = publisher_.url()](Child::Link& link) {
      runServerProcess(link, path, url);
    });
  }
  void startServer(uid_t socketUid = getuid()) {
    server_ = startServerProcess(host_, dir_.path(), publisher_.url(), socketUid);
    ASSERT_NE(server_, nullptr);
    ASSERT_TRUE(eventually([&] { return kyrGetState(server_) == STARTED; }, kStepWait));
  }
  int connectedClients() { return kyrServerProcessGetClientCount(kyrGetServerProcess(server_)); }

  void expectClientsStarted() {
    for (auto& client : clients_) {
      EXPECT_EQ(client->report(), "starting");
      EXPECT_EQ(client->ask("started"), kStarted);
    }
  }
  // Each client routes the probes as given, asked again while it does not (yet).
  void expectClientsRoute(const std::string& expected) {
    for (auto& client : clients_) EXPECT_EQ(client->askUntil("route", expected), expected);
  }
  // Pushes the delta and waits until the server process's decisions change; the new ones.
  std::string pushAndAwait(const std::string& delta, const std::function<std::string()>& routed) {
    std::string before = routed();
    publisher_.pushDelta(delta);
    std::string after = before;
    EXPECT_TRUE(eventually([&] { return (after = routed()) != before; }, kStepWait));
    return after;
  }

  SocketDir dir_;
  Publisher publisher_{readTestData("cell-routing.json")};
  TestHost host_;
  Kyr* server_ = nullptr;
  std::vector<std::unique_ptr<Child>> clients_;
};

TEST_F(MultiProcess, ClientsRouteOnWhileTheServerIsDownAndFollowItOnceItIsBack) {
  forkClients(2);
  std::unique_ptr<Child> server = forkServer();
  ASSERT_EQ(server->report(), "started");
  expectClientsStarted();
  std::string held = server->ask("route");
  expectClientsRoute(held);

  server->kill();
  // Over a few of their one-second reconnect attempts, the clients answer from what they hold.
  for (int round = 0; round < 3; ++round) {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    for (auto& client : clients_) EXPECT_EQ(client->ask("route"), held);
  }

  server = forkServer();
  ASSERT_EQ(server->report(), "started");
  ASSERT_EQ(server->askUntil("clients", "2"), "2");
  std::string stopped = pushAndAwait(portalState("STOPPED"), [&] { return server->ask("route"); });
  expectClientsRoute(stopped);
}

TEST_F(MultiProcess, AClientStartedBeforeTheServerWaitsForTheSocketThenStarts) {
  forkClients(1);
  Child& client = *clients_[0];
  ASSERT_EQ(client.report(), "starting");
  // Two of its one-second attempts find no socket.
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  EXPECT_EQ(client.ask("state"), "STARTING");
  startServer();
  EXPECT_EQ(client.ask("started"), kStarted);
  expectClientsRoute(decisions(server_));
}

// ---- Route agreement -------------------------------------------------------------------------

// As far as route agreement goes, a client process: a connection that sends each command line
// it gets as an MT_C2S_JSON body, in a frame stamped with its own pid.
void runReporter(Child::Link& link, const std::string& socketPath) {
  int fd = connectTo(socketPath);
  link.report(fd >= 0 ? "connected" : "refused");
  for (std::string body = link.command(); !body.empty(); body = link.command()) {
    KyrMessage msg = kyr::kyrMessageWithText(MT_C2S_JSON, body.c_str());
    link.report(kyr::writeMessage(fd, &msg) == 0 ? "sent" : "failed");
  }
  close(fd);
}

class RouteAgreement : public MultiProcess {
 protected:
  void SetUp() override {
    MultiProcess::SetUp();
    if (IsSkipped()) return;
    ASSERT_NO_FATAL_FAILURE(startServer());
    for (auto* reporter : {&a_, &b_}) {
      *reporter = std::make_unique<Child>(
          [path = dir_.path()](Child::Link& link) { runReporter(link, path); });
      ASSERT_EQ((*reporter)->report(), "connected");
    }
    ASSERT_TRUE(eventually([&] { return connectedClients() == 2; }, kStepWait));
  }

  // What a client process sends when routes of the group's connector change.
  std::string routes(const std::vector<std::string>& add, const std::vector<std::string>& del) {
    json_t* doc = json_object();
    json_object_set_new(doc, "connectorGroupName", json_string(kGroup));
    json_object_set_new(doc, "connectorURL", json_string(publisher_.url().c_str()));
    for (auto [key, names] : {std::pair{"addRoutes", &add}, std::pair{"delRoutes", &del}}) {
      if (names->empty()) continue;
      json_t* array = json_array();
      for (const auto& name : *names) json_array_append_new(array, json_string(name.c_str()));
      json_object_set_new(doc, key, array);
    }
    char* text = json_dumps(doc, JSON_COMPACT);
    std::string out = text;
    free(text);
    json_decref(doc);
    return out;
  }
  // Waits until the publisher heard (at least) the events, whose order is not kept: route changes
  // that the server posts one after the other may overtake one another. Whether it heard them
  // and nothing else.
  void expectHeard(std::vector<std::string> expected) {
    std::sort(expected.begin(), expected.end());
    std::vector<std::string> events;
    eventually(
        [&] {
          events = publisher_.routeEvents("/agree/");
          std::sort(events.begin(), events.end());
          return std::includes(events.begin(), events.end(), expected.begin(), expected.end());
        },
        kStepWait);
    EXPECT_EQ(events, expected);
  }

  std::unique_ptr<Child> a_;
  std::unique_ptr<Child> b_;
};

// A name no client ever reported is withdrawn at once, which also marks how far the server got:
// what one report decides is posted together, with the withdrawal it carries.
TEST_F(RouteAgreement, APublisherHearsOfARouteOnceEveryClientHasItAndOfItsEndOnceNoneHas) {
  ASSERT_EQ(a_->ask(routes({"/agree/one", "/agree/both"}, {"/agree/mark1"})), "sent");
  expectHeard({"del /agree/mark1"});

  ASSERT_EQ(b_->ask(routes({"/agree/both"}, {})), "sent");
  ASSERT_EQ(b_->ask(routes({"/agree/both"}, {"/agree/mark2"})), "sent");
  expectHeard({"del /agree/mark1", "add /agree/both", "del /agree/mark2"});

  ASSERT_EQ(a_->ask(routes({}, {"/agree/both", "/agree/mark3"})), "sent");
  expectHeard({"del /agree/mark1", "add /agree/both", "del /agree/mark2", "del /agree/mark3"});
  ASSERT_EQ(b_->ask(routes({}, {"/agree/both"})), "sent");
  expectHeard({"del /agree/mark1", "add /agree/both", "del /agree/mark2", "del /agree/mark3",
               "del /agree/both"});
}

TEST_F(RouteAgreement, AClientThatWentAwayNoLongerHoldsTheRoutesItReported) {
  ASSERT_EQ(a_->ask(routes({"/agree/shared"}, {})), "sent");
  ASSERT_EQ(b_->ask(routes({"/agree/shared"}, {})), "sent");
  expectHeard({"add /agree/shared"});
  b_->kill();
  ASSERT_TRUE(eventually([&] { return connectedClients() == 1; }, kStepWait));
  ASSERT_EQ(a_->ask(routes({}, {"/agree/shared"})), "sent");
  expectHeard({"add /agree/shared", "del /agree/shared"});
}

// ---- Broken clients ----------------------------------------------------------------------------

TEST_F(MultiProcess, ABrokenFrameCostsItsSenderTheConnectionAndNobodyElseAnything) {
  forkClients(1);
  startServer();
  expectClientsStarted();

  int negative = connectTo(dir_.path());
  ASSERT_GE(negative, 0);
  ASSERT_TRUE(sendRaw(negative, MT_C2S_JSON, -1));
  EXPECT_TRUE(closedByPeer(negative));
  close(negative);

  int garbage = connectTo(dir_.path());
  ASSERT_GE(garbage, 0);
  std::string request = "GET / HTTP/1.1\r\nHost: kyr\r\n\r\n";
  ASSERT_EQ(send(garbage, request.data(), request.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(request.size()));
  EXPECT_TRUE(closedByPeer(garbage));
  close(garbage);

  Child halfway([path = dir_.path()](Child::Link& link) {
    int fd = connectTo(path);
    link.report(fd >= 0 && sendRaw(fd, MT_C2S_JSON, 1000, "{\"connectorGroupName\":") ? "sent"
                                                                                      : "failed");
    link.command();  // killed while waiting here
  });
  ASSERT_EQ(halfway.report(), "sent");
  halfway.kill();
  EXPECT_TRUE(eventually([&] { return connectedClients() == 1; }, kStepWait));

  std::string stopped = pushAndAwait(portalState("STOPPED"), [&] { return decisions(server_); });
  expectClientsRoute(stopped);
}

// ---- The socket file -------------------------------------------------------------------------

TEST_F(MultiProcess, TheSocketIsOpenToItsOwnerAlone) {
  startServer();
  struct stat st {};
  ASSERT_EQ(stat(dir_.path().c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0700u);
}

// The user a child switches to before it connects: "connected", or the errno's name.
std::string connectAs(uid_t uid, const std::string& path) {
  if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) return "no setuid";
  int fd = connectTo(path);
  if (fd >= 0) {
    close(fd);
    return "connected";
  }
  return errno == EACCES ? "EACCES" : strerror(errno);
}

TEST_F(MultiProcess, AsRootTheSocketBelongsToTheConfiguredUserAndNoOtherUserConnects) {
  if (geteuid() != 0) GTEST_SKIP() << "changing the socket's owner needs root";
  constexpr uid_t kWorkerUid = 65534;
  // The directory lets everyone through, so the socket's own permissions decide.
  ASSERT_EQ(chmod(dir_.dir().c_str(), 0711), 0);
  startServer(kWorkerUid);
  struct stat st {};
  ASSERT_EQ(stat(dir_.path().c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, kWorkerUid);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  for (auto [uid, expected] : {std::pair{kWorkerUid, "connected"}, std::pair{65533u, "EACCES"}}) {
    Child other([uid = uid, path = dir_.path()] { return connectAs(uid, path); });
    EXPECT_EQ(other.report(), expected) << "uid " << uid;
  }
}

}  // namespace
