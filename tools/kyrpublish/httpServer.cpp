// libmicrohttpd glue. A request's state lives from its first call to the completion notice:
// the body collected (up to kMaxBodyBytes), and, for a long poll, the held poll the publisher
// resumes with its answer. Refusals that need no body (an unknown path, a method the path does
// not take, a declared body too large) are answered before the body is read, which also closes
// the connection; the others once the request is complete, keeping it alive.
#include "httpServer.h"

#include <arpa/inet.h>
#include <malloc.h>
#include <microhttpd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>

#include "log.h"
#include "publisher.h"

namespace kyrpublish {
namespace {

constexpr size_t kMaxBodyBytes = 1 << 20;
// A connection idle between requests is closed after this long; a held poll is suspended and
// does not count as idle.
constexpr unsigned kIdleTimeoutSecs = 600;
// Until its first request head is complete, a connection gets this long between bytes. With
// epoll, libmicrohttpd misses a peer's close that arrives together with a partial request, and
// such a connection would otherwise wait out the idle time-out.
constexpr unsigned kHeadTimeoutSecs = 10;
// Each connection's buffer for its request head and the answer's head. libmicrohttpd zeroes all
// of it for every request on a kept-alive connection, so this is most of what a waiting web
// server costs; a web server's request head is a few hundred bytes.
constexpr size_t kConnectionMemoryBytes = 16 * 1024;
// File descriptors kept for everything but client connections (the listener, epoll, inotify,
// the log).
constexpr rlim_t kReservedFds = 64;

struct Request : HeldPoll {
  std::string address;
  std::string body;
  bool oversize = false;
  bool answered = false;  // resumed with `reply`
  Reply reply;
};

std::string peerAddress(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (info == nullptr || info->client_addr == nullptr || info->client_addr->sa_family != AF_INET) {
    return "?";
  }
  const auto* in = reinterpret_cast<const sockaddr_in*>(info->client_addr);
  char text[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(in->sin_port));
}

int socketOf(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  return info != nullptr ? info->connect_fd : -1;
}

MHD_Result collectArg(void* cls, MHD_ValueKind /*kind*/, const char* key, const char* value) {
  static_cast<QueryArgs*>(cls)->emplace_back(
      key, value != nullptr ? std::optional<std::string>(value) : std::nullopt);
  return MHD_YES;
}

QueryArgs queryArgs(MHD_Connection* connection) {
  QueryArgs args;
  MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, collectArg, &args);
  return args;
}

void releaseText(void* cls) { delete static_cast<Text*>(cls); }

Reply tooLarge() {
  return refusal(413, "request body over " + std::to_string(kMaxBodyBytes) + " bytes");
}

// Queues the reply; its text is shared, not copied. Every refusal is logged.
MHD_Result queue(MHD_Connection* connection, const Reply& reply, const char* method,
                 const char* path, const std::string& address) {
  if (reply.status >= 400) {
    logLine("refused %u %s %s from %s: %s", reply.status, method, path, address.c_str(),
            reply.body->c_str());
  }
  auto* text = new Text(reply.body);
  MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
      (*text)->size(), const_cast<char*>((*text)->data()), releaseText, text);
  if (response == nullptr) {
    delete text;
    return MHD_NO;
  }
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE,
                          reply.json ? "application/json" : "text/plain");
  MHD_Result queued = MHD_queue_response(connection, reply.status, response);
  MHD_destroy_response(response);
  return queued;
}

// What the first call can refuse from the request line and headers alone.
std::optional<Reply> refuseEarly(const HttpServer& server, MHD_Connection* connection,
                                 const std::string& path, const std::string& method) {
  bool get = method == MHD_HTTP_METHOD_GET;
  bool post = method == MHD_HTTP_METHOD_POST;
  if (path == server.restUri()) {
    if (!get && !post) return refusal(405, path + " takes GET or POST");
  } else if (path == "/status") {
    if (!get) return refusal(405, path + " takes GET");
  } else if (path == "/apply") {
    if (!post) return refusal(405, path + " takes POST");
  } else {
    return refusal(404, "unknown path " + path);
  }
  const char* length =
      MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (length != nullptr && strtoull(length, nullptr, 10) > kMaxBodyBytes) return tooLarge();
  return std::nullopt;
}

// The complete request: parsed and checked first, then handed to the publisher under its lock.
MHD_Result dispatch(HttpServer& server, MHD_Connection* connection, const std::string& path,
                    const std::string& method, Request* request) {
  Publisher& publisher = server.publisher();
  auto reply = [&](const Reply& r) {
    return queue(connection, r, method.c_str(), path.c_str(), request->address);
  };
  if (request->oversize) return reply(tooLarge());
  RestQuery query;
  QueryFor purpose = path == "/apply"  ? QueryFor::Apply
                     : method == "GET" ? QueryFor::Poll
                                       : QueryFor::Post;
  if (path == "/status") {
    std::lock_guard<std::mutex> guard(publisher.lock());
    return reply(publisher.status());
  }
  std::string problem = parseQuery(queryArgs(connection), purpose, query);
  if (!problem.empty()) return reply(refusal(400, problem));
  if (purpose == QueryFor::Apply) {
    std::lock_guard<std::mutex> guard(publisher.lock());
    return reply(publisher.push(query, request->body));
  }
  if (purpose == QueryFor::Poll) {
    request->connection = connection;
    request->fd = socketOf(connection);
    std::lock_guard<std::mutex> guard(publisher.lock());
    std::optional<Reply> answer = publisher.poll(query, request->address, request);
    if (answer) return reply(*answer);
    MHD_suspend_connection(connection);
    return MHD_YES;
  }
  PostKind kind;
  json_t* body = nullptr;
  problem = classifyPost(request->body, kind, body);
  if (!problem.empty()) return reply(refusal(400, problem));
  std::lock_guard<std::mutex> guard(publisher.lock());
  Reply r = kind == PostKind::Init          ? publisher.init(query, request->address)
            : kind == PostKind::RouteChange ? publisher.routeChange(query, body)
                                            : publisher.healthTrigger(query, body);
  json_decref(body);
  return reply(r);
}

MHD_Result access(void* cls, MHD_Connection* connection, const char* url, const char* method,
                  const char* /*version*/, const char* uploadData, size_t* uploadDataSize,
                  void** state) {
  auto& server = *static_cast<HttpServer*>(cls);
  auto* request = static_cast<Request*>(*state);
  if (request == nullptr) {
    request = new Request;
    request->address = peerAddress(connection);
    *state = request;
    MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT, kIdleTimeoutSecs);
    std::optional<Reply> refused = refuseEarly(server, connection, url, method);
    return refused ? queue(connection, *refused, method, url, request->address) : MHD_YES;
  }
  if (*uploadDataSize != 0) {
    // A body sent in chunks has no length to refuse it by: past the limit it is discarded.
    if (request->body.size() + *uploadDataSize > kMaxBodyBytes) {
      request->oversize = true;
      std::string().swap(request->body);
    } else if (!request->oversize) {
      request->body.append(uploadData, *uploadDataSize);
    }
    *uploadDataSize = 0;
    return MHD_YES;
  }
  if (request->answered) return queue(connection, request->reply, method, url, request->address);
  return dispatch(server, connection, url, method, request);
}

void completed(void* /*cls*/, MHD_Connection* /*connection*/, void** state,
               MHD_RequestTerminationCode /*code*/) {
  delete static_cast<Request*>(*state);
  *state = nullptr;
}

void httpLog(void* /*cls*/, const char* format, va_list args) {
  char message[512];
  vsnprintf(message, sizeof message, format, args);
  logLine("http: %s", message);
}

// Each web server holds a socket for as long as it runs; a soft limit of 1024 descriptors
// would cap the publisher far below what one thread can serve.
unsigned raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1024 - kReservedFds;
  if (limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
  }
  rlim_t usable = limit.rlim_cur > 2 * kReservedFds ? limit.rlim_cur - kReservedFds : kReservedFds;
  return static_cast<unsigned>(std::min<rlim_t>(usable, 1u << 20));
}

}  // namespace

HttpServer::HttpServer(Publisher& publisher, std::string restUri)
    : publisher_(publisher), restUri_(std::move(restUri)) {}

HttpServer::~HttpServer() { stop(); }

bool HttpServer::start(const std::string& host, uint16_t port, std::string& error) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    error = "'" + host + "' is not an IPv4 address";
    return false;
  }
  unsigned connections = raiseDescriptorLimit();
  // Connection buffers get mappings of their own, so a closed connection's memory goes back to
  // the system at once rather than staying in the heap behind longer-lived allocations.
  mallopt(M_MMAP_THRESHOLD, static_cast<int>(kConnectionMemoryBytes));
  bool resumed = publisher_.start(
      [](HeldPoll* poll, const Reply& reply) {
        auto* request = static_cast<Request*>(poll);
        request->reply = reply;
        request->answered = true;
        MHD_resume_connection(static_cast<MHD_Connection*>(poll->connection));
      },
      error);
  if (!resumed) return false;
  unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME |
                   MHD_USE_ERROR_LOG;
  daemon_ = MHD_start_daemon(
      flags, port, nullptr, nullptr, &access, this, MHD_OPTION_EXTERNAL_LOGGER, &httpLog, this,
      MHD_OPTION_SOCK_ADDR, &address, MHD_OPTION_CONNECTION_LIMIT, connections,
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemoryBytes, MHD_OPTION_CONNECTION_TIMEOUT,
      kHeadTimeoutSecs, MHD_OPTION_LISTEN_BACKLOG_SIZE, 1024u, MHD_OPTION_NOTIFY_COMPLETED,
      &completed, this, MHD_OPTION_END);
  if (daemon_ == nullptr) {
    error = "cannot listen on " + host + ":" + std::to_string(port);
    publisher_.stop();
    return false;
  }
  return true;
}

uint16_t HttpServer::port() const {
  const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT);
  return info != nullptr ? info->port : 0;
}

void HttpServer::stop() {
  if (daemon_ == nullptr) return;
  MHD_socket listener = MHD_quiesce_daemon(daemon_);
  if (listener != MHD_INVALID_SOCKET) close(listener);
  publisher_.stop();
  // The 503s just queued get a moment to go out, so web servers move on at once.
  for (int i = 0; i < 50; ++i) {
    const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_CURRENT_CONNECTIONS);
    if (info == nullptr || info->num_connections == 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  MHD_stop_daemon(daemon_);
  daemon_ = nullptr;
}

}  // namespace kyrpublish
