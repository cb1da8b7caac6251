// Connector groups against loopback publishers and a host's own transport: the initial request
// and the long polls that follow it, failover and the retry alarm, publishers that restart,
// fail or never answer, route changes, and stopping with a request in flight. Real sockets and
// threads throughout, so the suite runs under ThreadSanitizer too.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "connector/kyrConnector.h"
#include "core/kyr.h"
#include "support/kyrTestHost.h"
#include "support/memCount.h"
#include "support/publisherStub.h"
#include "support/testData.h"

namespace {

using namespace std::chrono_literals;
using kyrtest::eventually;
using kyrtest::Publisher;
using kyrtest::PublisherRequest;
using kyrtest::SilentPublisher;

constexpr const char* kRestUri = "/brisvane?name=cg&server=kyrlib";
constexpr const char* kDeleteShop =
    R"({"del":{"objects":{"type":"webModule",)"
    R"("name":"/cell/route/application/shop/webModule/shop.war","props":{}}}})";
constexpr const char* kEmptyDelta = R"({"delta":true})";

std::chrono::milliseconds timed(const std::function<void()>& call) {
  auto begun = std::chrono::steady_clock::now();
  call();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               begun);
}

// The alarms the library asks the host for. They run only when a test fires them, on a thread
// of their own as a host's timer would. Callbacks carry no user data, so this is process-wide.
class AlarmClock {
 public:
  struct Alarm {
    void (*function)(void*);
    void* arg;
  };

  static int set(void (*function)(void*), void* arg, int milliseconds) {
    AlarmClock& clock = instance();
    std::lock_guard<std::mutex> guard(clock.lock_);
    clock.pending_.push_back({function, arg});
    clock.asked_.push_back(milliseconds);
    return 0;
  }
  static int setEx(void (*function)(void*), void* arg, int milliseconds, void*) {
    return set(function, arg, milliseconds);
  }
  static AlarmClock& instance() {
    static AlarmClock clock;
    return clock;
  }

  void reset() {
    std::lock_guard<std::mutex> guard(lock_);
    pending_.clear();
    asked_.clear();
  }
  // The delays asked for, in order.
  std::vector<int> asked() {
    std::lock_guard<std::mutex> guard(lock_);
    return asked_;
  }
  size_t timesAsked() { return asked().size(); }
  // Runs the alarms set so far.
  void fire() {
    std::vector<Alarm> due;
    {
      std::lock_guard<std::mutex> guard(lock_);
      due.swap(pending_);
    }
    if (due.empty()) return;
    std::thread([&due] {
      for (const Alarm& alarm : due) alarm.function(alarm.arg);
    }).join();
  }

 private:
  std::mutex lock_;
  std::vector<Alarm> pending_;
  std::vector<int> asked_;
};

// A host's own connector transport: it keeps what the library sends and answers when the test
// says, each answer from a thread of its own. Closing the client answers what is still in flight
// with no response, later and from another thread, as the library expects of a host.
class HostTransport {
 public:
  struct Sent {
    std::string method;
    std::string uri;
    std::string body;
    int timeoutInSecs;
    KyrHttpResponseCallBack callback;
    KyrHttpResponseContext* passback;
    bool answered;
  };

  struct Counts {
    int opens = 0;
    int closes = 0;
    int responses = 0;  // handed to the library
    int freed = 0;      // handed back through freeResponse
  };

  static HostTransport& instance() {
    static HostTransport transport;
    return transport;
  }
  static void install(EnvCallBacks& env) {
    env.http.connector.open = [](KyrConnector*) {
      std::lock_guard<std::mutex> guard(instance().lock_);
      ++instance().counts_.opens;
      return reinterpret_cast<EnvConnectorClient*>(&instance());
    };
    env.http.connector.sendRequest =
        [](EnvConnectorClient*, const char* method, const char* uri, const char* body,
           int timeoutInSecs, KyrHttpResponseCallBack callback, KyrHttpResponseContext* passback) {
          std::lock_guard<std::mutex> guard(instance().lock_);
          instance().sent_.push_back(
              {method, uri, body != nullptr ? body : "", timeoutInSecs, callback, passback, false});
          return 0;
        };
    env.http.connector.freeResponse = [](KyrHttpResponse* response) {
      std::lock_guard<std::mutex> guard(instance().lock_);
      ++instance().counts_.freed;
      free(response->body);
      delete response;
    };
    env.http.connector.close = [](EnvConnectorClient*) {
      HostTransport& t = instance();
      std::lock_guard<std::mutex> guard(t.lock_);
      ++t.counts_.closes;
      // The library may hold its control lock here, and the callback takes it: answer later.
      for (size_t i = 0; i < t.sent_.size(); ++i) {
        if (t.sent_[i].answered) continue;
        t.sent_[i].answered = true;
        Sent s = t.sent_[i];
        t.threads_.emplace_back([s] { s.callback(nullptr, s.passback); });
      }
    };
  }

  void reset() {
    join();
    std::lock_guard<std::mutex> guard(lock_);
    sent_.clear();
    counts_ = {};
  }
  size_t sentCount() {
    std::lock_guard<std::mutex> guard(lock_);
    return sent_.size();
  }
  // The index of the first request sent with this method and URI; sentCount() while none was.
  size_t find(const std::string& method, const std::string& uri) {
    std::lock_guard<std::mutex> guard(lock_);
    size_t i = 0;
    while (i < sent_.size() && (sent_[i].method != method || sent_[i].uri != uri)) ++i;
    return i;
  }
  Sent sent(size_t i) {
    std::lock_guard<std::mutex> guard(lock_);
    return sent_.at(i);
  }
  // Answers request i from a thread of the host's.
  void answer(size_t i, int status, const std::string& body) {
    Sent s;
    {
      std::lock_guard<std::mutex> guard(lock_);
      sent_.at(i).answered = true;
      s = sent_[i];
      ++counts_.responses;
    }
    auto* response = new KyrHttpResponse{};
    response->responseCode = status;
    response->body = strdup(body.c_str());
    std::thread([&] { s.callback(response, s.passback); }).join();
  }
  // Waits for the answers close started.
  void join() {
    std::vector<std::thread> threads;
    {
      std::lock_guard<std::mutex> guard(lock_);
      threads.swap(threads_);
    }
    for (std::thread& t : threads) t.join();
  }
  Counts counts() {
    std::lock_guard<std::mutex> guard(lock_);
    return counts_;
  }

 private:
  std::mutex lock_;
  std::vector<Sent> sent_;
  std::vector<std::thread> threads_;
  Counts counts_;
};

// One handle with one connector group "cg"; each test adds its connectors and starts it. Every
// test ends with the counted memory back where it began, so a request, response, client or
// reference left behind by any path fails the test that took it.
class ConnectorGroupConcurrency : public ::testing::Test {
 protected:
  void SetUp() override {
    baseline_ = kyrtest::settledMemCount();
    kyrtest::stateChanges().clear();
    alarms().reset();
    HostTransport::instance().reset();
    host_.env.alarm = AlarmClock::set;
  }
  void TearDown() override {
    if (kyr_ != nullptr) kyrDestroy(kyr_);
    // A host cannot cancel an alarm: it runs after the handle is gone, too.
    alarms().fire();
    HostTransport::instance().join();
    int settled = -1;
    EXPECT_TRUE(eventually(
        [&] {
          settled = kyrtest::settledMemCount();
          return settled == baseline_;
        },
        5s))
        << settled - baseline_ << " blocks left";
  }

  static AlarmClock& alarms() { return AlarmClock::instance(); }

  void create(std::initializer_list<std::pair<const char*, const char*>> properties = {}) {
    kyr_ = host_.create();
    ASSERT_NE(kyr_, nullptr);
    cg_ = kyrConnectorGroupCreate(kyr_, "cg");
    for (const auto& [name, value] : properties) {
      ASSERT_TRUE(kyrConnectorGroupSetProperty(cg_, name, value)) << name;
    }
  }
  KyrConnector* connect(const std::string& url) { return kyrConnectorCreate(cg_, url.c_str()); }
  void start() { ASSERT_EQ(kyrStart(kyr_, -1), 0); }
  void destroy() {
    kyrDestroy(kyr_);
    kyr_ = nullptr;
  }

  bool groupReaches(KyrComponentState state) {
    return eventually([&] { return kyrConnectorGroupGetState(cg_) == state; });
  }
  // How often a group or connector reported the state.
  static int timesReported(const void* object, KyrComponentState state) {
    int times = 0;
    for (const auto& change : kyrtest::stateChanges().of(object)) times += change.state == state;
    return times;
  }
  std::string lastGroupReason() {
    auto changes = kyrtest::stateChanges().of(cg_);
    return changes.empty() ? "" : changes.back().reason;
  }
  // Whether the library routes a request for the path with the routing data it holds now.
  int handles(const char* path) {
    EnvHttpContext request;
    request.path = path;
    KyrHttpContext* ctx = kyrHttpContextObtain(kyr_, &request);
    int handled = kyrHttpContextShouldHandle(ctx);
    kyrHttpContextRelease(ctx);
    return handled;
  }
  static bool pollsReach(const Publisher& publisher, size_t n) {
    return eventually([&] { return publisher.uris("GET").size() >= n; });
  }
  static std::string poll(int64_t vid, int waitSecs) {
    return std::string(kRestUri) + "&vid=" + std::to_string(vid) +
           "&wait=" + std::to_string(waitSecs);
  }

  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  KyrConnectorGroup* cg_ = nullptr;
  int baseline_ = 0;
};

TEST_F(ConnectorGroupConcurrency, InitialRequestThenLongPollsCarryingEachVersionReturned) {
  Publisher publisher(kyrtest::readTestData("cell-routing.json"));  // at version 1
  create({{"waitTime", "30"}});
  KyrConnector* connector = connect(publisher.url());
  start();
  ASSERT_TRUE(groupReaches(STARTED));
  EXPECT_EQ(kyrConnectorGetState(connector), STARTED);
  ASSERT_TRUE(pollsReach(publisher, 1));
  PublisherRequest init = publisher.requests().front();
  EXPECT_EQ(init.method, "POST");
  EXPECT_EQ(init.uri, kRestUri);
  EXPECT_NE(init.body.find("'interests'"), std::string::npos) << init.body;
  EXPECT_EQ(handles("/shop/cart"), 1);

  ASSERT_EQ(publisher.pushDelta(kDeleteShop), 2);
  ASSERT_TRUE(pollsReach(publisher, 2));
  // The next poll goes out once the delta is applied.
  EXPECT_EQ(handles("/shop/cart"), 0);
  ASSERT_EQ(publisher.pushDelta(kEmptyDelta), 3);
  ASSERT_TRUE(pollsReach(publisher, 3));

  EXPECT_EQ(publisher.uris("GET"),
            (std::vector<std::string>{poll(1, 30), poll(2, 30), poll(3, 30)}));
  EXPECT_EQ(publisher.inits().size(), 1u);
  EXPECT_EQ(alarms().timesAsked(), 0u);
}

TEST_F(ConnectorGroupConcurrency, ARoundOfFailuresFailsTheGroupAndTheHostAlarmRetries) {
  Publisher publisher(kyrtest::readTestData("cell-routing.json"));
  publisher.refuse(true);
  create({{"retryInterval", "7"}});
  KyrConnector* first = connect(kyrtest::closedPortUrl());
  KyrConnector* second = connect(publisher.url());
  start();
  ASSERT_TRUE(eventually([&] { return alarms().timesAsked() == 1; }));
  EXPECT_EQ(alarms().asked().front(), 7000);
  EXPECT_EQ(kyrConnectorGroupGetState(cg_), FAILED);
  EXPECT_EQ(lastGroupReason(), "failure on all connectors");
  EXPECT_EQ(kyrGetState(kyr_), FAILED);
  EXPECT_EQ(kyrConnectorGetState(first), FAILED);
  EXPECT_EQ(kyrConnectorGetState(second), FAILED);
  EXPECT_EQ(timesReported(first, STARTING), 1);
  EXPECT_EQ(timesReported(second, STARTING), 1);

  // The next round starts over at the first connector.
  publisher.refuse(false);
  alarms().fire();
  ASSERT_TRUE(groupReaches(STARTED));
  EXPECT_EQ(timesReported(first, STARTING), 2);
  EXPECT_EQ(kyrConnectorGetState(second), STARTED);
  EXPECT_EQ(alarms().timesAsked(), 1u);
}

// Without an alarm callback the host's alarm_ex is asked.
TEST_F(ConnectorGroupConcurrency, OneRefusingConnectorAlternatesOneAttemptAndOnePause) {
  host_.env.alarm = nullptr;
  host_.env.alarm_ex = AlarmClock::setEx;
  create({{"retryInterval", "2"}});
  KyrConnector* connector = connect(kyrtest::closedPortUrl());
  start();
  for (size_t round = 1; round <= 3; ++round) {
    ASSERT_TRUE(eventually([&] { return alarms().timesAsked() == round; })) << round;
    EXPECT_EQ(timesReported(connector, STARTING), static_cast<int>(round));
    EXPECT_EQ(kyrConnectorGroupGetState(cg_), FAILED);
    alarms().fire();
  }
  EXPECT_EQ(alarms().asked().front(), 2000);
}

TEST_F(ConnectorGroupConcurrency, AGroupWithoutConnectorsFailsAtOnceWithoutAnAlarm) {
  create();
  start();
  ASSERT_TRUE(groupReaches(FAILED));
  EXPECT_EQ(alarms().timesAsked(), 0u);
}

TEST_F(ConnectorGroupConcurrency, AnErrorStatusCountsAsAFailure) {
  Publisher publisher(kyrtest::readTestData("cell-routing.json"));
  publisher.failWith(500);
  create({{"retryInterval", "5"}});
  KyrConnector* connector = connect(publisher.url());
  start();
  ASSERT_TRUE(eventually([&] { return alarms().timesAsked() == 1; }));
  EXPECT_EQ(kyrConnectorGroupGetState(cg_), FAILED);
  EXPECT_EQ(kyrConnectorGetState(connector), FAILED);
  EXPECT_EQ(publisher.inits().size(), 1u);
  EXPECT_EQ(handles("/shop/cart"), 0);

  publisher.failWith(0);
  alarms().fire();
  ASSERT_TRUE(groupReaches(STARTED));
  EXPECT_EQ(handles("/shop/cart"), 1);
}

TEST_F(ConnectorGroupConcurrency, APublisherRestartedDuringAPollIsReconnectedAndPolledOn) {
  Publisher publisher(kyrtest::readTestData("cell-routing.json"));
  create({{"waitTime", "30"}, {"retryInterval", "1"}});
  connect(publisher.url());
  start();
  ASSERT_TRUE(eventually([&] { return publisher.heldPolls() == 1; }));

  publisher.restart();
  // A lone connector's failure ends a round; the alarm the group then asks for runs at once.
  ASSERT_TRUE(eventually([&] {
    alarms().fire();
    return publisher.inits().size() == 2 && publisher.heldPolls() == 1;
  }));
  EXPECT_EQ(kyrConnectorGroupGetState(cg_), STARTED);
  ASSERT_EQ(publisher.pushDelta(kDeleteShop), 2);
  ASSERT_TRUE(eventually([&] { return publisher.uris("GET").back() == poll(2, 30); }));
  EXPECT_EQ(handles("/shop/cart"), 0);
}

// A stop or destroy must not wait for the publisher's answer (minutes, at the default wait).
TEST_F(ConnectorGroupConcurrency, StopOrDestroyDuringALongPollReturnsAtOnceAndAbortsThePoll) {
  for (bool stopFirst : {true, false}) {
    SCOPED_TRACE(stopFirst ? "stop, then destroy" : "destroy");
    Publisher publisher(kyrtest::readTestData("cell-routing.json"));
    create();
    connect(publisher.url());
    start();
    ASSERT_TRUE(eventually([&] { return publisher.heldPolls() == 1; }));
    if (stopFirst) {
      EXPECT_LT(timed([&] { EXPECT_EQ(kyrStop(kyr_), 0); }), 1500ms);
      EXPECT_TRUE(groupReaches(STOPPED));
      EXPECT_TRUE(eventually([&] { return kyrGetState(kyr_) == STOPPED; }));
      EXPECT_TRUE(eventually([&] { return publisher.openConnections() == 0; }));
    }
    EXPECT_LT(timed([&] { destroy(); }), 1500ms);
    EXPECT_TRUE(eventually([&] { return publisher.openConnections() == 0; }));
  }
}

TEST_F(ConnectorGroupConcurrency, DestroyWhileTheInitialRequestIsUnansweredReturnsAtOnce) {
  SilentPublisher silent;
  create();
  connect(silent.url());
  start();
  ASSERT_TRUE(eventually([&] { return silent.bytesReceived() > 0; }));
  EXPECT_EQ(kyrConnectorGroupGetState(cg_), STARTING);

  EXPECT_LT(timed([&] { destroy(); }), 1500ms);
  EXPECT_TRUE(eventually([&] { return silent.openConnections() == 0; }));
}

TEST_F(ConnectorGroupConcurrency, AnUnansweringPublisherCostsAtMostTheWaitAndItsOffset) {
  SilentPublisher silent;
  Publisher publisher(kyrtest::readTestData("cell-routing.json"));
  create({{"waitTime", "1"}, {"maxWaitOffset", "1"}});
  KyrConnector* mute = connect(silent.url());
  connect(publisher.url());
  auto waited = timed([&] {
    start();
    ASSERT_TRUE(publisher.waitForRequests(1, 10s));
  });
  // Two seconds of receive time-out, and some for the connects and threads around it.
  EXPECT_LT(waited, 3500ms);
  EXPECT_EQ(silent.connections(), 1);
  EXPECT_EQ(kyrConnectorGetState(mute), FAILED);
  EXPECT_TRUE(eventually([&] { return silent.openConnections() == 0; }));
  EXPECT_TRUE(groupReaches(STARTED));
}

// Server applications that become routable, or stop being so, are reported to the publisher,
// on a connection of its own while the long poll waits.
TEST_F(ConnectorGroupConcurrency, RoutabilityChangesArePostedWhileThePollWaits) {
  const std::string s1Shop = "/cell/route/node/n1/server/s1/serverApplication/shop";
  Publisher publisher(kyrtest::readTestData("cell-routing.json"));
  create({{"waitTime", "30"}});
  connect(publisher.url());
  start();
  // Every started server application of the document, s1's shop among them.
  ASSERT_TRUE(eventually([&] { return publisher.routeEvents().size() == 8; }));
  std::vector<std::string> added = publisher.routeEvents();
  EXPECT_THAT(added, testing::Each(testing::StartsWith("add ")));
  EXPECT_THAT(added, testing::Contains("add " + s1Shop));

  ASSERT_EQ(publisher.pushDelta(R"({"set":{"objects":{"type":"serverApplication","name":")" +
                                s1Shop + R"(","props":{"state":"STOPPED"}}}})"),
            2);
  ASSERT_TRUE(eventually([&] { return publisher.routeEvents().size() > 8; }));
  std::vector<std::string> events = publisher.routeEvents();
  EXPECT_EQ(std::vector<std::string>(events.begin() + 8, events.end()),
            std::vector<std::string>{"del " + s1Shop});
  EXPECT_TRUE(eventually([&] { return publisher.heldPolls() == 1; }));
  EXPECT_EQ(publisher.uris("GET").back(), poll(2, 30));
  for (const PublisherRequest& r : publisher.requests()) {
    if (r.routeChange) {
      EXPECT_EQ(r.uri, kRestUri);
    }
  }
}

TEST_F(ConnectorGroupConcurrency, AHostTransportAnswersFromItsOwnThreads) {
  HostTransport& transport = HostTransport::instance();
  HostTransport::install(host_.env);
  create({{"waitTime", "30"}, {"maxWaitOffset", "4"}});
  connect("http://127.0.0.1:9");  // never dialled: the host's transport carries the requests
  start();
  ASSERT_TRUE(eventually([&] { return transport.sentCount() == 1; }));
  HostTransport::Sent init = transport.sent(0);
  EXPECT_EQ(init.method, "POST");
  EXPECT_EQ(init.uri, kRestUri);
  EXPECT_NE(init.body.find("'interests'"), std::string::npos);
  EXPECT_EQ(init.timeoutInSecs, 34);
  EXPECT_EQ(kyrConnectorGroupGetState(cg_), STARTING);

  transport.answer(0, 200, kyrtest::readTestData("cell-routing.json"));
  ASSERT_TRUE(groupReaches(STARTED));
  size_t first = 0;
  ASSERT_TRUE(eventually(
      [&] { return (first = transport.find("GET", poll(1, 30))) < transport.sentCount(); }));
  HostTransport::Sent poll1 = transport.sent(first);
  EXPECT_EQ(poll1.body, "");
  EXPECT_EQ(poll1.timeoutInSecs, 34);
  EXPECT_EQ(handles("/shop/cart"), 1);

  transport.answer(first, 200, R"({"version":2,"delta":true})");
  ASSERT_TRUE(
      eventually([&] { return transport.find("GET", poll(2, 30)) < transport.sentCount(); }));

  // The second poll (and any route change) is still with the host: destroying closes the client,
  // and the host answers them afterwards with no response.
  destroy();
  transport.join();
  EXPECT_EQ(transport.counts().closes, transport.counts().opens);
  EXPECT_TRUE(eventually([&] { return transport.counts().freed == transport.counts().responses; }));
}

}  // namespace
