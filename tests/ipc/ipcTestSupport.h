// Shared by the tests of several worker processes: forked children that take commands from the
// test and report over a socket pair, a socket path in a directory of its own, the requests every
// process routes (with one line of decisions to compare), the client and server processes a
// child runs, and raw connections that speak the frame by hand.
#pragma once

#include <jansson.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kyrlib.h"
#include "support/kyrTestHost.h"
#include "support/publisherStub.h"

namespace kyrtest {

// The longest any single step of these tests waits: a start, a report, a delta arriving.
constexpr std::chrono::milliseconds kStepWait = std::chrono::seconds(15);

// Lines from a descriptor, each wait bounded.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}
  // The next line without its newline; nothing at the end of input or when the time is up.
  std::optional<std::string> next(std::chrono::milliseconds within) {
    auto deadline = std::chrono::steady_clock::now() + within;
    for (;;) {
      size_t newline = buffer_.find('\n');
      if (newline != std::string::npos) {
        std::string line = buffer_.substr(0, newline);
        buffer_.erase(0, newline + 1);
        return line;
      }
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return std::nullopt;
      pollfd p{fd_, POLLIN, 0};
      int ready = poll(&p, 1, static_cast<int>(left.count()));
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) return std::nullopt;
      char buf[4096];
      ssize_t n = read(fd_, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return std::nullopt;
      buffer_.append(buf, static_cast<size_t>(n));
    }
  }

 private:
  int fd_;
  std::string buffer_;
};

// A line to the other end of a socket pair; nothing (no SIGPIPE either) when that end is gone.
inline void writeLine(int fd, const std::string& line) {
  std::string out = line + "\n";
  (void)!send(fd, out.data(), out.size(), MSG_NOSIGNAL);
}

// A forked child running body(). The test sends it command lines and reads the lines it
// reports, over a socket pair; the child ends with _exit, so nothing the test process owns is
// torn down twice. The child must make its own handle (the parent's threads do not exist in
// it), and a leftover child is killed by the destructor.
class Child {
 public:
  // The child's side: the test's commands and its own reports.
  class Link {
   public:
    explicit Link(int fd) : in_(fd), fd_(fd) {}
    // The next command, or "" once the test has closed its end or sent none for a minute.
    std::string command() { return in_.next(std::chrono::seconds(60)).value_or(""); }
    void report(const std::string& line) { writeLine(fd_, line); }

   private:
    LineReader in_;
    int fd_;
  };

  explicit Child(const std::function<void(Link&)>& body) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return;
    // The control lock is process-wide: a library thread of the test process holding it at the
    // fork would leave the child a lock no thread ever releases. Holding it across the fork
    // hands the child a lock that its only thread can let go.
    kyrControlLock("Child");
    pid_ = fork();
    kyrControlUnlock();
    if (pid_ == 0) {
      close(fds[0]);
      Link link(fds[1]);
      body(link);
      _exit(0);
    }
    close(fds[1]);
    if (pid_ < 0) {
      close(fds[0]);
      return;
    }
    fd_ = fds[0];
    reader_.emplace(fd_);
  }
  // A child whose one report is what body() returns.
  explicit Child(const std::function<std::string()>& body)
      : Child([body](Link& link) { link.report(body()); }) {}
  ~Child() {
    kill();
    if (fd_ >= 0) close(fd_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The child's next report; "" when it sent none in time or is gone.
  std::string report(std::chrono::milliseconds within = kStepWait) {
    return reader_ ? reader_->next(within).value_or("") : "";
  }
  std::string ask(const std::string& command) {
    if (fd_ >= 0) writeLine(fd_, command);
    return report();
  }
  // Asks until the answer is the expected one (or the time is up); the last answer.
  std::string askUntil(const std::string& command, const std::string& expected) {
    std::string answer;
    eventually([&] { return (answer = ask(command)) == expected; }, kStepWait);
    return answer;
  }
  // SIGKILL, then reaped.
  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  std::optional<LineReader> reader_;
};

// A socket path in a directory of its own, removed with everything in it at the end.
class SocketDir {
 public:
  SocketDir() {
    char dir[] = "/tmp/kyripc.XXXXXX";
    if (mkdtemp(dir) != nullptr) dir_ = dir;
  }
  ~SocketDir() {
    unlink(path().c_str());
    rmdir(dir_.c_str());
  }
  SocketDir(const SocketDir&) = delete;
  SocketDir& operator=(const SocketDir&) = delete;
  const std::string& dir() const { return dir_; }
  std::string path() const { return dir_ + "/kyr.sock"; }

 private:
  std::string dir_;
};

// The connector group every process of these tests has, by name, as a host configures its
// workers alike.
constexpr const char* kGroup = "cg";

// ---- What every process routes -----------------------------------------------------------

// Requests of cell-routing.json whose answer depends on the model alone, not on which member
// load balancing would pick next: a session names its member, or the cluster has one member,
// or nothing serves the path.
struct Probe {
  const char* path;
  const char* session;  // JSESSIONID, or null
};
inline constexpr Probe kProbes[] = {
    {"/shop/cart;jsessionid=a:c1", nullptr},
    {"/shop/cart", "b:c2"},
    {"/shop/cart;jsessionid=c:c3", nullptr},
    {"/vault/a", nullptr},
    {"/portal/a", nullptr},
    {"/front/a", nullptr},
    {"/orphan/a", nullptr},
    {"/empty/a", nullptr},
    {"/nowhere/a", nullptr},
};

// The application whose state the tests' deltas switch; /portal has it as its only member.
inline constexpr const char* kPortal = "/cell/route/node/n3/server/e1/serverApplication/portal";

inline std::string portalState(const char* state) {
  return std::string(R"({"set":{"objects":{"type":"serverApplication","name":")") + kPortal +
         R"(","props":{"state":")" + state + R"("}}}})";
}

// One line: for each probe, whether the library handles it, the action, the error code, and
// the server and endpoint chosen.
inline std::string decisions(Kyr* kyr) {
  std::string out;
  for (const Probe& probe : kProbes) {
    EnvHttpContext request;
    request.virtualHost = "www.example.com";
    request.path = probe.path;
    if (probe.session != nullptr) request.cookies["JSESSIONID"] = probe.session;
    KyrHttpContext* ctx = kyrHttpContextObtain(kyr, &request);
    int handled = kyrHttpContextShouldHandle(ctx);
    KyrTargetEndpoint* tep = handled == 1 ? kyrHttpContextGetTargetEndpoint(ctx) : nullptr;
    const char* server = kyrHttpContextGetTargetEndpointServerName(ctx);
    const char* host = kyrTargetEndpointGetHostName(tep);
    out += std::string(probe.path) + " " + std::to_string(handled) + " " +
           std::to_string(kyrHttpContextGetAction(ctx)) + " " +
           std::to_string(kyrHttpContextGetErrorCode(ctx)) + " " +
           (server != nullptr ? server : "-") + " " + (host != nullptr ? host : "-") + ":" +
           std::to_string(kyrTargetEndpointGetPort(tep)) + " | ";
    kyrHttpContextRelease(ctx);
  }
  return out;
}

// ---- The processes a child runs --------------------------------------------------------------

// The state changes the handle reported, "STATE reason" each, joined by ", ".
inline std::string stateChangesOf(Kyr* kyr) {
  std::string out;
  for (const StateChange& change : stateChanges().of(kyr)) {
    out += (out.empty() ? "" : ", ") + std::string(kyrState2String(change.state)) + " " +
           change.reason;
  }
  return out;
}

// How long a child waits for something before it says it did not come; shorter than the test
// waits for its report, so the two stay in step.
constexpr std::chrono::milliseconds kChildWait = std::chrono::seconds(10);

// Answers the test's commands until it says "exit" or goes away: "route" gives the decisions,
// "state" the handle's state, "clients" how many client processes a server process has,
// "started" the state changes that brought it to STARTED once it is there (or "not started").
inline void serveCommands(Kyr* kyr, Child::Link& link) {
  for (std::string command = link.command(); !command.empty() && command != "exit";
       command = link.command()) {
    if (command == "route") {
      link.report(decisions(kyr));
    } else if (command == "state") {
      link.report(kyrState2String(kyrGetState(kyr)));
    } else if (command == "clients") {
      link.report(std::to_string(kyrServerProcessGetClientCount(kyrGetServerProcess(kyr))));
    } else if (command == "started") {
      auto started = [&] { return stateChangesOf(kyr).find("STARTED ") != std::string::npos; };
      link.report(eventually(started, kChildWait) ? stateChangesOf(kyr) : "not started");
    } else {
      link.report("unknown command " + command);
    }
  }
}

// The server process's handle on the socket, its group fed by the publisher, started; null
// (and destroyed) if it did not start.
inline Kyr* startServerProcess(TestHost& host, const std::string& socketPath,
                               const std::string& publisherUrl, uid_t socketUid = getuid()) {
  host.env.trace.printf = nullptr;
  Kyr* kyr = host.create();
  kyrConnectorCreate(kyrConnectorGroupCreate(kyr, kGroup), publisherUrl.c_str());
  if (kyrMarkAsServerProcess(kyr, socketPath.c_str(), socketUid) == 0 && kyrStart(kyr, -1) == 0)
    return kyr;
  kyrDestroy(kyr);
  return nullptr;
}

// A client process's handle of the socket, started (it reaches STARTED once the server's data
// came); null (and destroyed) if it could not start.
inline Kyr* startClientProcess(TestHost& host, const std::string& socketPath) {
  host.env.trace.printf = nullptr;
  Kyr* kyr = host.create();
  kyrConnectorGroupCreate(kyr, kGroup);
  if (kyrMarkAsClientProcess(kyr, socketPath.c_str()) == 0 && kyrStart(kyr, -1) == 0) return kyr;
  kyrDestroy(kyr);
  return nullptr;
}

// A client process in a child: reports "starting" once kyrStart returned, then answers
// commands. The recorder of state changes came over from the test process, and a handle
// destroyed there may have had this one's address.
inline void runClientProcess(Child::Link& link, const std::string& socketPath) {
  stateChanges().clear();
  TestHost host;
  Kyr* kyr = startClientProcess(host, socketPath);
  link.report(kyr != nullptr ? "starting" : "could not start");
  if (kyr == nullptr) return;
  serveCommands(kyr, link);
  kyrDestroy(kyr);
}

// A server process in a child, fed by the publisher: reports "started" once the routing data
// is there, then answers commands.
inline void runServerProcess(Child::Link& link, const std::string& socketPath,
                             const std::string& publisherUrl) {
  stateChanges().clear();
  TestHost host;
  Kyr* kyr = startServerProcess(host, socketPath, publisherUrl);
  if (kyr == nullptr) return link.report("could not start");
  bool started = eventually([&] { return kyrGetState(kyr) == STARTED; }, kChildWait);
  link.report(started ? "started" : "not started");
  serveCommands(kyr, link);
  kyrDestroy(kyr);
}

// ---- Raw connections ---------------------------------------------------------------------------

// A connection to the socket at path, or -1 with errno set.
inline int connectTo(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    int error = errno;
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

// Writes a header as given (whatever len says) followed by body.
inline bool sendRaw(int fd, int32_t type, int32_t len, const std::string& body = "") {
  KyrMessageHdr hdr{type, static_cast<int32_t>(getpid()), len};
  std::string bytes(reinterpret_cast<const char*>(&hdr), sizeof hdr);
  bytes += body;
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// Reads and drops whatever arrives until the peer closes the connection; whether it did in time.
inline bool closedByPeer(int fd, std::chrono::milliseconds within = kStepWait) {
  auto deadline = std::chrono::steady_clock::now() + within;
  char buf[4096];
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 50) != 1) continue;
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
  }
  return false;
}

}  // namespace kyrtest
