// The built-in connector transport over the library's HTTP client. A request runs on a thread
// of its own, so the long poll of a connector never blocks the thread that sent it. Closing a
// client aborts what its threads are waiting for, so a host that stops or destroys the library
// during a long poll gets its threads back at once.
#include "connector/kyrBuiltinTransport.h"

#include <atomic>
#include <mutex>

#include "connector/kyrConnector.h"
#include "connector/kyrHttpClient.h"
#include "core/kyr.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrList.h"
#include "runtime/kyrThread.h"

namespace kyr {
namespace {

// What open hands the connector as its client.
struct BuiltinClient {
  // Holders: the connector from open to close, and each request until its callback returned.
  std::atomic<int> refs;
  KyrHttpClient* http;      // the persistent connection to the publisher
  const EnvCallBacks* env;  // the handle's table, for the threads' threadInit
  // Guards busy, closed and extras. A request finds the persistent connection taken by the
  // long poll most of the time, and a route change must not wait minutes behind it: such a
  // request gets a connection of its own for its one exchange.
  std::mutex lock;
  bool busy;
  bool closed;
  KyrList* extras;  // the one-exchange connections in use, so that close can abort them
};

struct Job {
  BuiltinClient* client;
  char* method;
  char* uri;
  char* body;  // null for none
  int timeoutInSecs;
  KyrHttpResponseCallBack callback;
  KyrHttpResponseContext* passback;
};

void clientRelease(BuiltinClient* client) {
  if (--client->refs > 0) return;
  kyrHttpClientDelete(client->http);
  kyrListDestroy(client->extras);
  kyrDelete(client);
}

// The connection the request uses; null once the client is closed.
KyrHttpClient* claimConnection(BuiltinClient* client) {
  std::lock_guard<std::mutex> guard(client->lock);
  if (client->closed) return nullptr;
  if (!client->busy) {
    client->busy = true;
    return client->http;
  }
  KyrHttpClient* extra = kyrHttpClientCreateLike(client->http);
  kyrListAddTail(client->extras, extra);
  return extra;
}

void returnConnection(BuiltinClient* client, KyrHttpClient* http) {
  {
    std::lock_guard<std::mutex> guard(client->lock);
    if (http == client->http) {
      client->busy = false;
      return;
    }
    kyrListFindAndRemove(client->extras, http);
  }
  kyrHttpClientDelete(http);
}

void jobFree(Job* job) {
  kyrFree(job->method);
  kyrFree(job->uri);
  kyrFree(job->body);
  kyrDelete(job);
}

void runJob(void* arg) {
  auto* job = static_cast<Job*>(arg);
  BuiltinClient* client = job->client;
  KyrHttpResponse* response = nullptr;
  KyrHttpClient* http = claimConnection(client);
  if (http != nullptr) {
    response = kyrHttpClientGetResponse(http, job->method, job->uri, job->body, job->timeoutInSecs);
    returnConnection(client, http);
  }
  // The callback owns the response from here and releases it through freeResponse. A closed
  // client still answers, with no response, so that the request's owner can let it go.
  job->callback(response, job->passback);
  jobFree(job);
  clientRelease(client);
}

EnvConnectorClient* builtinOpen(KyrConnector* connector) {
  KyrHttpClient* http = kyrHttpClientCreate(kyrConnectorGetURL(connector));
  if (http == nullptr) return nullptr;
  auto* client = kyrNew<BuiltinClient>();
  client->refs = 1;
  client->http = http;
  client->env = &connector->kyr->env;
  client->extras = kyrListCreate(nullptr);
  return reinterpret_cast<EnvConnectorClient*>(client);
}

int builtinSendRequest(EnvConnectorClient* envClient, const char* method, const char* uri,
                       const char* body, int timeoutInSecs, KyrHttpResponseCallBack callback,
                       KyrHttpResponseContext* passback) {
  auto* client = reinterpret_cast<BuiltinClient*>(envClient);
  if (client == nullptr || method == nullptr || uri == nullptr || callback == nullptr) return -1;
  auto* job = kyrNew<Job>();
  *job = Job{
      client,        kyrStrdup(method), kyrStrdup(uri), body != nullptr ? kyrStrdup(body) : nullptr,
      timeoutInSecs, callback,          passback};
  ++client->refs;
  if (kyrThreadCreate(runJob, job, client->env) == nullptr) {
    jobFree(job);
    clientRelease(client);
    return -2;
  }
  return 0;
}

void builtinFreeResponse(KyrHttpResponse* response) { kyrHttpClientFreeResponse(response); }

void builtinClose(EnvConnectorClient* envClient) {
  auto* client = reinterpret_cast<BuiltinClient*>(envClient);
  if (client == nullptr) return;
  {
    std::lock_guard<std::mutex> guard(client->lock);
    client->closed = true;
    kyrHttpClientAbort(client->http);
    for (KyrListEle* e = kyrListGetHead(client->extras); e != nullptr; e = kyrListGetNext(e)) {
      kyrHttpClientAbort(static_cast<KyrHttpClient*>(kyrListEleGetObject(e)));
    }
  }
  clientRelease(client);
}

}  // namespace

void kyrUseBuiltinConnectorTransport(EnvCallBacks* env) {
  env->http.connector.open = builtinOpen;
  env->http.connector.sendRequest = builtinSendRequest;
  env->http.connector.freeResponse = builtinFreeResponse;
  env->http.connector.close = builtinClose;
}

}  // namespace kyr
