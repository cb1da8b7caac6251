// A scripted publisher on a loopback port for the connector tests.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/publisherStub.h"

namespace kyrtest {

// Accepts connections on 127.0.0.1 and answers each request with the next scripted reply, sent
// in the given pieces with a pause between them. Records the requests as received and the
// number of connections. Every wait is bounded, so a test that goes wrong ends by itself.
class StubPublisher {
 public:
  using Reply = std::vector<std::string>;

  explicit StubPublisher(std::vector<Reply> replies)
      : replies_(std::move(replies)), listener_(stub::listenOn(0)), port_(stub::portOf(listener_)) {
    thread_ = std::thread([this] { serve(); });
  }
  ~StubPublisher() {
    thread_.join();
    close(listener_);
  }

  std::string url() const { return stub::urlFor(port_); }
  const std::vector<std::string>& requests() const { return requests_; }
  int connections() const { return connections_; }

 private:
  static bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 5000) == 1;
  }

  // One request: the head, and as many body bytes as its Content-Length says.
  static std::string readRequest(int fd) {
    std::string text;
    char buf[1024];
    size_t need = std::string::npos;
    while (text.size() < need && readable(fd)) {
      ssize_t n = recv(fd, buf, sizeof buf, 0);
      if (n <= 0) break;
      text.append(buf, static_cast<size_t>(n));
      size_t end = text.find("\r\n\r\n");
      if (end != std::string::npos && need == std::string::npos) {
        size_t at = text.find("Content-Length: ");
        need = end + 4 + (at != std::string::npos ? std::stoul(text.substr(at + 16)) : 0);
      }
    }
    return text;
  }

  void serve() {
    size_t next = 0;
    int fd = -1;
    while (next < replies_.size()) {
      if (fd < 0) {
        if (!readable(listener_)) return;
        fd = accept(listener_, nullptr, nullptr);
        ++connections_;
      }
      std::string request = readRequest(fd);
      if (request.empty()) {  // the client closed this connection
        close(fd);
        fd = -1;
        continue;
      }
      requests_.push_back(request);
      for (const std::string& piece : replies_[next]) {
        send(fd, piece.data(), piece.size(), MSG_NOSIGNAL);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
      ++next;
    }
    // Keep the connection until the client has read everything and closed it.
    if (fd >= 0) {
      char c;
      if (readable(fd)) recv(fd, &c, 1, 0);
      close(fd);
    }
  }

  std::vector<Reply> replies_;
  int listener_;
  int port_;
  std::thread thread_;
  std::vector<std::string> requests_;
  int connections_ = 0;
};

}  // namespace kyrtest
