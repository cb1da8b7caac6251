// Several worker processes: how soon a one-property change that the server process applies is
// routed by 4 client processes, and what 4 client processes pay to start from a complete
// 1,000-server document (the time until all are STARTED, and each one's peak memory). The
// server handle lives in the benchmark process; the clients are forked in setup, before that
// handle holds a model, so their memory is their own; they are killed at the end.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "benchHost.h"
#include "cellgen/cellDocument.h"
#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "ipc/kyrServerProcess.h"
#include "kyrlib.h"

// The benchmark host's request. The same layout as bench_route.cpp's, the other definition in
// this program.
struct EnvHttpContext {
  std::string path;
  int port;
  std::string sessionCookie;  // JSESSIONID of the request, or empty
  std::string setCookie;      // the response's Set-Cookie
};

namespace {

constexpr int kClients = 4;
constexpr const char* kGroup = "cg";
constexpr auto kStepLimit = std::chrono::seconds(20);  // any one wait, child or parent

kyrtools::CellShape cellShape() { return {}; }  // 10 clusters of 100 servers
const kyrtools::CellShape kShape = cellShape();
// The member the watched request's session names: the first of the cluster that runs app 0.
const int kMember = kyrtools::clusterOfApplication(kShape, 0) * kShape.serversPerCluster;

char kHost[] = "www.example.com";
char kProtocol[] = "http";
char kClientIp[] = "10.0.0.1";
char kProtocolVersion[] = "HTTP/1.1";

char* getPath(EnvHttpContext* r) { return r->path.data(); }
int getPort(EnvHttpContext* r) { return r->port; }
char* getHost(EnvHttpContext*) { return kHost; }
char* getProtocol(EnvHttpContext*) { return kProtocol; }
char* getClientIp(EnvHttpContext*) { return kClientIp; }
char* getProtocolVersion(EnvHttpContext*) { return kProtocolVersion; }
char* getCookie(EnvHttpContext* r, char* name) {
  return std::string(name) == "JSESSIONID" ? r->sessionCookie.data() : nullptr;
}

Kyr* createHandle() {
  EnvCallBacks env = kyrbench::quietCallbacks();
  auto& rq = env.http.request;
  rq.getPath = getPath;
  rq.getVirtualPort = getPort;
  rq.getVirtualHost = getHost;
  rq.getProtocol = getProtocol;
  rq.getClientIpAddr = getClientIp;
  rq.getProtocolVersion = getProtocolVersion;
  rq.getCookieValue = getCookie;
  return kyrCreate(&env, nullptr, KYR_TRACE_CATALOGUE);
}

// Whether a request whose session names kMember is routed to it (it is not while stopped).
bool routedToMember(Kyr* kyr, EnvHttpContext* request) {
  KyrHttpContext* ctx = kyrHttpContextObtain(kyr, request);
  bool toMember = false;
  if (kyrHttpContextShouldHandle(ctx) == 1 && kyrHttpContextGetTargetEndpoint(ctx) != nullptr) {
    const char* server = kyrHttpContextGetTargetEndpointServerName(ctx);
    toMember = server != nullptr && kyrtools::serverName(kShape, kMember) == server;
  }
  kyrHttpContextRelease(ctx);
  return toMember;
}

// Checks pred until it holds, yielding between checks (a change is seen within microseconds) or
// sleeping a millisecond (the wait leaves the cores to the threads doing the work).
template <class Pred>
bool waitUntil(Pred pred, bool spin) {
  auto deadline = std::chrono::steady_clock::now() + kStepLimit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (pred()) return true;
    if (spin) {
      std::this_thread::yield();
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  return false;
}

// A line from fd, every wait bounded; "" when none came.
std::string readLine(int fd) {
  std::string line;
  auto deadline = std::chrono::steady_clock::now() + kStepLimit;
  char c;
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 100) != 1) continue;
    if (read(fd, &c, 1) != 1) break;
    if (c == '\n') return line;
    line += c;
  }
  return "";
}

// To the other end of a socket pair; nothing (no SIGPIPE either) when that end is gone.
void writeLine(int fd, const std::string& line) {
  std::string out = line + "\n";
  (void)!send(fd, out.data(), out.size(), MSG_NOSIGNAL);
}

// A client process's body: one handle, made after the fork, driven by commands from `link`:
// "start" (kyrStart, then wait until STARTED with the request routed), "stop", "watch 1" and
// "watch 0" (route the request until it is, or is not, routed to kMember). Each is answered on
// `link` with "ok" or "failed"; "exit" or a silent parent ends it.
void clientBody(int link, const std::string& socketPath) {
  Kyr* kyr = createHandle();
  kyrConnectorGroupCreate(kyr, kGroup);
  kyrMarkAsClientProcess(kyr, socketPath.c_str());
  EnvHttpContext request{kyrtools::mappedPath(0, 0), kyrtools::modulePort(kShape, 0, 0),
                         "0000abcdefghijklmnopqrstuv:" + kyrtools::cloneId(kMember), ""};
  writeLine(link, "ready");
  for (std::string command = readLine(link); !command.empty() && command != "exit";
       command = readLine(link)) {
    bool ok = true;
    if (command == "start") {
      ok = kyrStart(kyr, -1) == 0 &&
           waitUntil([&] { return kyrGetState(kyr) == STARTED; }, false) &&
           routedToMember(kyr, &request);
    } else if (command == "stop") {
      ok = kyrStop(kyr) == 0;
    } else if (command.starts_with("watch ")) {
      bool expected = command == "watch 1";
      ok = waitUntil([&] { return routedToMember(kyr, &request) == expected; }, true);
    }
    writeLine(link, ok ? "ok" : "failed");
  }
  kyrDestroy(kyr);
}

// The client processes, killed and reaped at the end.
class Clients {
 public:
  explicit Clients(const std::string& socketPath) {
    for (Child& child : children_) {
      int fds[2];
      if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return;
      // The control lock is process-wide: held across the fork, no library thread of this
      // process can leave the child a lock nobody releases.
      kyrControlLock("bench fork");
      child.pid = fork();
      kyrControlUnlock();
      if (child.pid == 0) {
        close(fds[0]);
        clientBody(fds[1], socketPath);
        _exit(0);
      }
      close(fds[1]);
      child.fd = fds[0];
    }
  }
  ~Clients() {
    for (Child& child : children_) {
      if (child.pid > 0) {
        kill(child.pid, SIGKILL);
        waitpid(child.pid, nullptr, 0);
      }
      close(child.fd);
    }
  }
  Clients(const Clients&) = delete;
  Clients& operator=(const Clients&) = delete;

  // Sends the command to every client; whether each answered `expected`.
  void tell(const std::string& command) {
    for (Child& child : children_) writeLine(child.fd, command);
  }
  bool allAnswer(const std::string& expected) {
    bool all = true;
    for (Child& child : children_) all = readLine(child.fd) == expected && all;
    return all;
  }
  bool run(const std::string& command) {
    tell(command);
    return allAnswer("ok");
  }
  // A line of each client's /proc/<pid>/status, in kB; the largest.
  long maxStatusKb(const char* field) const {
    long most = 0;
    for (const Child& child : children_) {
      std::ifstream status("/proc/" + std::to_string(child.pid) + "/status");
      std::string key;
      long kb = 0;
      while (status >> key) {
        if (key == field && status >> kb) break;
      }
      most = std::max(most, kb);
    }
    return most;
  }

 private:
  struct Child {
    pid_t pid = -1;
    int fd = -1;  // the socket pair's end in this process
  };
  std::array<Child, kClients> children_;
};

// The server process's handle: the generated cell stored with its connector and applied, and
// the listener running. The connector group never runs (its publisher is not there to ask):
// documents are handed to the connector as its REST answers would be.
class Server {
 public:
  explicit Server(const std::string& socketPath) : kyr_(createHandle()) {
    connector_ = kyrConnectorCreate(kyrConnectorGroupCreate(kyr_, kGroup), "http://publisher:1");
    connector_->cg->curConnector = connector_;
    kyrMarkAsServerProcess(kyr_, socketPath.c_str(), getuid());
    document_ = kyrtools::completeDocument(kShape);
    kyr::ControlLockGuard guard("bench server");
    applied_ = kyrHandleJsonFromRestService(document_.c_str(), connector_) >= 0;
    listening_ = kyr::kyrServerProcessStart(kyr_->serverProcess) == 0;
  }
  ~Server() {
    {
      kyr::ControlLockGuard guard("bench server");
      kyr::kyrServerProcessStop(kyr_->serverProcess);
    }
    kyrDestroy(kyr_);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  bool ready() const { return applied_ && listening_; }
  size_t documentBytes() const { return document_.size(); }
  void apply(const std::string& document) {
    kyr::ControlLockGuard guard("bench delta");
    kyrHandleJsonFromRestService(document.c_str(), connector_);
  }

 private:
  Kyr* kyr_;
  KyrConnector* connector_ = nullptr;
  std::string document_;
  bool applied_ = false;
  bool listening_ = false;
};

std::string socketPath() { return "/tmp/kyr-bench-ipc." + std::to_string(getpid()) + ".sock"; }

void reportMedian(benchmark::State& state, std::vector<double> samplesMs) {
  if (samplesMs.empty()) return;
  std::sort(samplesMs.begin(), samplesMs.end());
  state.counters["median_ms"] = samplesMs[samplesMs.size() / 2];
  state.counters["max_ms"] = samplesMs.back();
}

// From the server handle taking the delta until every client has routed a request that sees it.
void BM_IpcDelta(benchmark::State& state) {
  std::string path = socketPath();
  Clients clients(path);
  Server server(path);
  if (!server.ready() || !clients.allAnswer("ready") || !clients.run("start")) {
    state.SkipWithError("the clients did not start with the cell");
  }
  std::vector<double> samples;
  bool stopped = false;
  for (auto _ : state) {
    stopped = !stopped;
    std::string delta =
        kyrtools::serverPropertyDelta(kShape, kMember, "state", stopped ? "STOPPED" : "STARTED");
    clients.tell(stopped ? "watch 0" : "watch 1");
    auto begun = std::chrono::steady_clock::now();
    server.apply(delta);
    if (!clients.allAnswer("ok")) {
      state.SkipWithError("a client did not see the delta");
      break;
    }
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    state.SetIterationTime(took.count());
    samples.push_back(took.count() * 1e3);
  }
  reportMedian(state, samples);
  unlink(path.c_str());
}
BENCHMARK(BM_IpcDelta)->UseManualTime()->Iterations(200)->Unit(benchmark::kMillisecond);

// From the clients' kyrStart until all four are STARTED with the whole cell, which the server
// sends each as it connects. Each iteration stops them first (not timed).
void BM_IpcCompleteDocument(benchmark::State& state) {
  std::string path = socketPath();
  Clients clients(path);
  if (!clients.allAnswer("ready")) state.SkipWithError("the clients did not come up");
  long baseKb = clients.maxStatusKb("VmRSS:");
  Server server(path);
  if (!server.ready()) state.SkipWithError("the server did not take the cell");
  std::vector<double> samples;
  long firstPeakKb = 0;  // after the first start; later ones rebuild beside the model held
  for (auto _ : state) {
    auto begun = std::chrono::steady_clock::now();
    if (!clients.run("start")) {
      state.SkipWithError("the clients did not start with the cell");
      break;
    }
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    state.SetIterationTime(took.count());
    samples.push_back(took.count() * 1e3);
    if (samples.size() == 1) firstPeakKb = clients.maxStatusKb("VmHWM:");
    if (!clients.run("stop")) {
      state.SkipWithError("the clients did not stop");
      break;
    }
  }
  reportMedian(state, samples);
  state.counters["document_MB"] = static_cast<double>(server.documentBytes()) / 1e6;
  // A child's pages inherited from this process count in its base and its peak alike, so the
  // difference is what the client itself came to hold (after its first start, and at its
  // highest over the restarts, each of which builds the new model beside the one it holds).
  // Free heap it inherited is reused without showing: the figures are exact when this
  // benchmark runs alone (--benchmark_filter=BM_IpcCompleteDocument).
  state.counters["client_base_MB"] = static_cast<double>(baseKb) / 1e3;
  state.counters["client_first_MB"] = static_cast<double>(firstPeakKb - baseKb) / 1e3;
  state.counters["client_peak_MB"] =
      static_cast<double>(clients.maxStatusKb("VmHWM:") - baseKb) / 1e3;
  unlink(path.c_str());
}
BENCHMARK(BM_IpcCompleteDocument)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

}  // namespace
