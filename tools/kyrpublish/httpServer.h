// The HTTP side of the publisher, on libmicrohttpd: one epoll thread serves every connection,
// and a long poll that has to wait is suspended, so thousands of idle web servers cost a
// socket and a little memory each, never a thread. Requests are routed to the publisher: the
// REST path (init, long polls, route changes, health triggers), /status and /apply.
#pragma once

#include <cstdint>
#include <string>

struct MHD_Daemon;

namespace kyrpublish {

class Publisher;

class HttpServer {
 public:
  HttpServer(Publisher& publisher, std::string restUri);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Listens on an IPv4 address and port (0: any free port); false and `error` when it cannot.
  bool start(const std::string& host, uint16_t port, std::string& error);
  uint16_t port() const;
  // Stops accepting, has the publisher answer the polls it holds, then ends the server.
  void stop();

  Publisher& publisher() { return publisher_; }
  const std::string& restUri() const { return restUri_; }

 private:
  Publisher& publisher_;
  std::string restUri_;
  MHD_Daemon* daemon_ = nullptr;
};

}  // namespace kyrpublish
