// Several worker processes sharing one model: a server process fed by a loopback publisher and
// client processes forked from the test, talking over a unix-domain socket in a temporary
// directory. Each child reports what it routes through a pipe and ends with _exit.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "support/kyrTestHost.h"
#include "support/publisherStub.h"
#include "support/testData.h"

namespace {

using kyrtest::eventually;

// A forked child running body(); what it writes to its pipe comes back through result().
class Child {
 public:
  explicit Child(const std::function<std::string()>& body) {
    int fds[2];
    if (pipe(fds) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(fds[0]);
      std::string out = body();
      (void)!write(fds[1], out.data(), out.size());
      _exit(0);
    }
    close(fds[1]);
    fd_ = fds[0];
  }
  ~Child() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (fd_ >= 0) close(fd_);
  }
  // Everything the child wrote until it ended (bounded by the time limit).
  std::string result(std::chrono::seconds within = std::chrono::seconds(20)) {
    std::string out;
    auto deadline = std::chrono::steady_clock::now() + within;
    char buf[256];
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 100) != 1) continue;
      ssize_t n = read(fd_, buf, sizeof buf);
      if (n <= 0) break;
      out.append(buf, static_cast<size_t>(n));
    }
    return out;
  }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
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
  std::string path() const { return dir_ + "/kyr.sock"; }

 private:
  std::string dir_;
};

int handles(Kyr* kyr, const char* path) {
  EnvHttpContext request;
  request.path = path;
  KyrHttpContext* ctx = kyrHttpContextObtain(kyr, &request);
  int handled = kyrHttpContextShouldHandle(ctx);
  kyrHttpContextRelease(ctx);
  return handled;
}

// A client process: same group as the server, started, routed once it has everything.
std::string clientRun(const std::string& socketPath) {
  kyrtest::TestHost host;
  host.env.trace.printf = nullptr;
  Kyr* kyr = host.create();
  kyrConnectorGroupCreate(kyr, "cg");
  if (kyrMarkAsClientProcess(kyr, socketPath.c_str()) != 0) return "mark failed";
  kyrStart(kyr, -1);
  if (!eventually([&] { return kyrGetState(kyr) == STARTED; })) return "not started";
  std::string out = "started " + std::to_string(handles(kyr, "/shop/cart"));
  kyrDestroy(kyr);
  return out;
}

TEST(MultiProcess, ClientProcessesReceiveTheServersModelAndRouteWithIt) {
  SocketDir dir;
  std::string socketPath = dir.path();
  std::vector<std::unique_ptr<Child>> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(std::make_unique<Child>([&] { return clientRun(socketPath); }));
  }
  kyrtest::Publisher publisher(kyrtest::readTestData("cell-routing.json"));
  kyrtest::TestHost host;
  host.env.trace.printf = nullptr;
  Kyr* kyr = host.create();
  kyrConnectorCreate(kyrConnectorGroupCreate(kyr, "cg"), publisher.url().c_str());
  ASSERT_EQ(kyrMarkAsServerProcess(kyr, socketPath.c_str(), getuid()), 0);
  kyrStart(kyr, -1);
  ASSERT_TRUE(eventually([&] { return kyrGetState(kyr) == STARTED; }));
  for (auto& client : clients) EXPECT_EQ(client->result(), "started 1");
  kyrDestroy(kyr);
}

}  // namespace
