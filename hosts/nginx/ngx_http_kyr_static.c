/*
 * The connector transport for kyr_routing_document: the document's connector is answered as a
 * publisher that never changes would answer (the initial request gets the document, a long poll
 * waits until the connector closes), and every other connector goes to the library's own
 * transport. Answers come from a thread of their own, as the library requires of a transport.
 */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "ngx_http_kyr_module.h"

/* One long poll that waits for its connector to close. */
typedef struct ngx_http_kyr_poll_s {
  KyrHttpResponseCallBack callback;
  KyrHttpResponseContext *passback;
  struct ngx_http_kyr_poll_s *next;
} ngx_http_kyr_poll_t;

/* What open returns for the document's connector. */
typedef struct ngx_http_kyr_static_client_s {
  ngx_http_kyr_poll_t *polls; /* guarded by ngx_http_kyr_static_lock */
  struct ngx_http_kyr_static_client_s *next;
} ngx_http_kyr_static_client_t;

typedef struct {
  KyrHttpResponseCallBack callback;
  KyrHttpResponseContext *passback;
  KyrHttpResponse *response; /* NULL: the request ended without an answer */
} ngx_http_kyr_answer_t;

/* Set before the handle starts, read by the library's threads afterwards. */
static EnvCallBacks ngx_http_kyr_builtin;
static KyrConnector *ngx_http_kyr_static_connector;
static const char *ngx_http_kyr_static_document;

/* The open clients of the document's connector, so that a client pointer tells which
 * transport it belongs to. */
static pthread_mutex_t ngx_http_kyr_static_lock = PTHREAD_MUTEX_INITIALIZER;
static ngx_http_kyr_static_client_t *ngx_http_kyr_static_clients;

/* Marks the responses this file allocates. */
static int ngx_http_kyr_static_tag;

static ngx_http_kyr_static_client_t *ngx_http_kyr_static_client(EnvConnectorClient *client) {
  pthread_mutex_lock(&ngx_http_kyr_static_lock);
  ngx_http_kyr_static_client_t *c = ngx_http_kyr_static_clients;
  while (c != NULL && (EnvConnectorClient *)c != client) c = c->next;
  pthread_mutex_unlock(&ngx_http_kyr_static_lock);
  return c;
}

static void *ngx_http_kyr_answer_main(void *arg) {
  ngx_http_kyr_block_signals();
  ngx_http_kyr_answer_t *answer = arg;
  answer->callback(answer->response, answer->passback);
  free(answer);
  return NULL;
}

/* 0 when a thread took the answer over. */
static int ngx_http_kyr_answer_later(KyrHttpResponseCallBack callback,
                                     KyrHttpResponseContext *passback, KyrHttpResponse *response) {
  ngx_http_kyr_answer_t *answer = malloc(sizeof *answer);
  if (answer == NULL) return -1;
  answer->callback = callback;
  answer->passback = passback;
  answer->response = response;
  pthread_attr_t attr;
  pthread_t thread;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  int rc = pthread_create(&thread, &attr, ngx_http_kyr_answer_main, answer);
  pthread_attr_destroy(&attr);
  if (rc != 0) free(answer);
  return rc == 0 ? 0 : -1;
}

static KyrHttpResponse *ngx_http_kyr_response(const char *body) {
  KyrHttpResponse *response = calloc(1, sizeof *response);
  if (response == NULL) return NULL;
  response->body = strdup(body);
  if (response->body == NULL) {
    free(response);
    return NULL;
  }
  response->responseCode = 200;
  response->userdata = &ngx_http_kyr_static_tag;
  return response;
}

static EnvConnectorClient *ngx_http_kyr_open(KyrConnector *connector) {
  if (connector != ngx_http_kyr_static_connector)
    return ngx_http_kyr_builtin.http.connector.open(connector);
  ngx_http_kyr_static_client_t *c = calloc(1, sizeof *c);
  if (c == NULL) return NULL;
  pthread_mutex_lock(&ngx_http_kyr_static_lock);
  c->next = ngx_http_kyr_static_clients;
  ngx_http_kyr_static_clients = c;
  pthread_mutex_unlock(&ngx_http_kyr_static_lock);
  return (EnvConnectorClient *)c;
}

static int ngx_http_kyr_send_request(EnvConnectorClient *client, const char *method,
                                     const char *uri, const char *body, int timeoutInSecs,
                                     KyrHttpResponseCallBack callback,
                                     KyrHttpResponseContext *passback) {
  ngx_http_kyr_static_client_t *c = ngx_http_kyr_static_client(client);
  if (c == NULL) {
    return ngx_http_kyr_builtin.http.connector.sendRequest(client, method, uri, body, timeoutInSecs,
                                                           callback, passback);
  }
  if (strcmp(method, "GET") == 0) {
    /* A long poll for a change: the document has none to give. */
    ngx_http_kyr_poll_t *poll = malloc(sizeof *poll);
    if (poll == NULL) return -1;
    poll->callback = callback;
    poll->passback = passback;
    pthread_mutex_lock(&ngx_http_kyr_static_lock);
    poll->next = c->polls;
    c->polls = poll;
    pthread_mutex_unlock(&ngx_http_kyr_static_lock);
    return 0;
  }
  /* The initial request carries the interest specification and gets the document; route
   * changes and health triggers are taken note of, as a publisher would. */
  int initial = body != NULL && strstr(body, "interests") != NULL;
  KyrHttpResponse *response = ngx_http_kyr_response(initial ? ngx_http_kyr_static_document : "{}");
  if (response == NULL) return -1;
  if (ngx_http_kyr_answer_later(callback, passback, response) != 0) {
    free(response->body);
    free(response);
    return -1;
  }
  return 0;
}

static void ngx_http_kyr_free_response(KyrHttpResponse *response) {
  if (response == NULL) return;
  if (response->userdata != &ngx_http_kyr_static_tag) {
    ngx_http_kyr_builtin.http.connector.freeResponse(response);
    return;
  }
  free(response->body);
  free(response);
}

/* Every request the client accepted is answered, those still waiting without a response. */
static void ngx_http_kyr_close(EnvConnectorClient *client) {
  pthread_mutex_lock(&ngx_http_kyr_static_lock);
  ngx_http_kyr_static_client_t **at = &ngx_http_kyr_static_clients;
  while (*at != NULL && (EnvConnectorClient *)*at != client) at = &(*at)->next;
  ngx_http_kyr_static_client_t *c = *at;
  if (c != NULL) *at = c->next;
  pthread_mutex_unlock(&ngx_http_kyr_static_lock);
  if (c == NULL) {
    ngx_http_kyr_builtin.http.connector.close(client);
    return;
  }
  while (c->polls != NULL) {
    ngx_http_kyr_poll_t *poll = c->polls;
    c->polls = poll->next;
    if (ngx_http_kyr_answer_later(poll->callback, poll->passback, NULL) != 0) {
      /* No thread to be had: the library's own wait for unanswered requests is bounded. */
      ngx_log_error(NGX_LOG_ALERT, ngx_cycle->log, 0,
                    "kyr: a long poll of the routing document could not be ended");
    }
    free(poll);
  }
  free(c);
}

void ngx_http_kyr_static_transport(EnvCallBacks *env, const EnvCallBacks *builtin) {
  ngx_http_kyr_builtin = *builtin;
  env->http.connector.open = ngx_http_kyr_open;
  env->http.connector.sendRequest = ngx_http_kyr_send_request;
  env->http.connector.freeResponse = ngx_http_kyr_free_response;
  env->http.connector.close = ngx_http_kyr_close;
}

void ngx_http_kyr_static_serve(KyrConnector *connector, const char *document) {
  ngx_http_kyr_static_connector = connector;
  ngx_http_kyr_static_document = document;
}
