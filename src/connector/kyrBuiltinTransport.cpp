// The built-in connector transport over the library's HTTP client. A request runs on a thread
// of its own, so the long poll of a connector never blocks the thread that sent it.
#include "connector/kyrBuiltinTransport.h"

#include <mutex>

#include "connector/kyrConnector.h"
#include "connector/kyrHttpClient.h"
#include "core/kyr.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrThread.h"

namespace kyr {
namespace {

// What open hands the connector as its client.
struct BuiltinClient {
  KyrHttpClient* http;
  const EnvCallBacks* env;  // the handle's table, for the threads' threadInit
  // One connection carries one request at a time: a request sent while another is on the
  // wire waits for it.
  std::mutex exchangeLock;
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

void jobFree(Job* job) {
  kyrFree(job->method);
  kyrFree(job->uri);
  kyrFree(job->body);
  kyrDelete(job);
}

void runJob(void* arg) {
  auto* job = static_cast<Job*>(arg);
  KyrHttpResponse* response;
  {
    std::lock_guard<std::mutex> guard(job->client->exchangeLock);
    response = kyrHttpClientGetResponse(job->client->http, job->method, job->uri, job->body,
                                        job->timeoutInSecs);
  }
  // The callback owns the response from here and releases it through freeResponse.
  job->callback(response, job->passback);
  jobFree(job);
}

EnvConnectorClient* builtinOpen(KyrConnector* connector) {
  KyrHttpClient* http = kyrHttpClientCreate(kyrConnectorGetURL(connector));
  if (http == nullptr) return nullptr;
  auto* client = kyrNew<BuiltinClient>();
  client->http = http;
  client->env = &connector->kyr->env;
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
  if (kyrThreadCreate(runJob, job, client->env) == nullptr) {
    jobFree(job);
    return -2;
  }
  return 0;
}

void builtinFreeResponse(KyrHttpResponse* response) { kyrHttpClientFreeResponse(response); }

// The connector closes its client only once no request of it is in flight.
void builtinClose(EnvConnectorClient* envClient) {
  auto* client = reinterpret_cast<BuiltinClient*>(envClient);
  if (client == nullptr) return;
  kyrHttpClientDelete(client->http);
  kyrDelete(client);
}

}  // namespace

void kyrUseBuiltinConnectorTransport(EnvCallBacks* env) {
  env->http.connector.open = builtinOpen;
  env->http.connector.sendRequest = builtinSendRequest;
  env->http.connector.freeResponse = builtinFreeResponse;
  env->http.connector.close = builtinClose;
}

}  // namespace kyr
