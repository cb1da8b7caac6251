/*
 * kyr_upstream: an upstream whose peer is the endpoint the library chose for the request.
 * Connecting asks the library for the endpoint; a failed attempt is reported to the library,
 * so that nginx's next try (proxy_next_upstream) gets another endpoint. Endpoint addresses are
 * resolved once per endpoint and kept for the worker's life.
 */
#include <string.h>

#include "ngx_http_kyr_module.h"

/* An upper bound on the attempts of one request; the library stops earlier when it runs out
 * of endpoints, and proxy_next_upstream_tries may bound it further. */
#define NGX_HTTP_KYR_MAX_TRIES 16

/* nginx wants a server in every upstream block; this one stands for the library's endpoints
 * and is never connected to. */
static ngx_str_t ngx_http_kyr_placeholder = ngx_string("kyr_upstream");

/* A resolved endpoint, under the endpoint's name. Only the worker's event loop uses these. */
typedef struct {
  ngx_str_node_t node; /* node.str: the endpoint name */
  ngx_pool_t *pool;    /* the address and name; replaced when the endpoint moves */
  ngx_str_t host;
  int port;
  struct sockaddr *sockaddr;
  socklen_t socklen;
  ngx_str_t name; /* host:port, for nginx's logs and $upstream_addr */
} ngx_http_kyr_address_t;

static ngx_rbtree_t ngx_http_kyr_addresses;
static ngx_rbtree_node_t ngx_http_kyr_addresses_sentinel;

static ngx_int_t ngx_http_kyr_init_upstream(ngx_conf_t *cf, ngx_http_upstream_srv_conf_t *us);
static ngx_int_t ngx_http_kyr_init_peer(ngx_http_request_t *r, ngx_http_upstream_srv_conf_t *us);

char *ngx_http_kyr_upstream(ngx_conf_t *cf, ngx_command_t *cmd, void *conf) {
  (void)cmd;
  (void)conf;
  ngx_http_upstream_srv_conf_t *uscf =
      ngx_http_conf_get_module_srv_conf(cf, ngx_http_upstream_module);
  if (uscf->peer.init_upstream != NULL) {
    ngx_conf_log_error(NGX_LOG_WARN, cf, 0, "load balancing method redefined");
  }
  uscf->peer.init_upstream = ngx_http_kyr_init_upstream;
  uscf->flags = NGX_HTTP_UPSTREAM_CREATE;
  if (uscf->servers == NULL) {
    uscf->servers = ngx_array_create(cf->pool, 1, sizeof(ngx_http_upstream_server_t));
    if (uscf->servers == NULL) return NGX_CONF_ERROR;
  }
  ngx_http_upstream_server_t *server = ngx_array_push(uscf->servers);
  if (server == NULL) return NGX_CONF_ERROR;
  ngx_memzero(server, sizeof(ngx_http_upstream_server_t));
  server->name = ngx_http_kyr_placeholder;
  server->weight = 1;
  return NGX_CONF_OK;
}

static ngx_int_t ngx_http_kyr_init_upstream(ngx_conf_t *cf, ngx_http_upstream_srv_conf_t *us) {
  ngx_http_upstream_server_t *servers = us->servers->elts;
  if (us->servers->nelts != 1 || servers[0].name.data != ngx_http_kyr_placeholder.data) {
    ngx_log_error(NGX_LOG_EMERG, cf->log, 0,
                  "kyr: upstream \"%V\" takes its servers from the routing data: remove its "
                  "\"server\" lines",
                  &us->host);
    return NGX_ERROR;
  }
  us->peer.init = ngx_http_kyr_init_peer;
  if (ngx_http_kyr_addresses.sentinel == NULL) {
    ngx_rbtree_init(&ngx_http_kyr_addresses, &ngx_http_kyr_addresses_sentinel,
                    ngx_str_rbtree_insert_value);
  }
  return NGX_OK;
}

/* The endpoint's address, resolved at its first use (host names block the worker that once)
 * and again when the routing data moves the endpoint. NULL when it does not resolve. */
static ngx_http_kyr_address_t *ngx_http_kyr_address(KyrTargetEndpoint *endpoint, ngx_log_t *log) {
  const char *name = kyrTargetEndpointGetName(endpoint);
  const char *host = kyrTargetEndpointGetHostName(endpoint);
  int port = kyrTargetEndpointGetPort(endpoint);
  if (name == NULL || host == NULL || port <= 0 || port > 65535) {
    ngx_log_error(NGX_LOG_ERR, log, 0, "kyr: endpoint \"%s\" has no host and port",
                  name != NULL ? name : "");
    return NULL;
  }
  ngx_str_t key = {ngx_strlen(name), (u_char *)name};
  uint32_t hash = ngx_murmur_hash2(key.data, key.len);
  ngx_http_kyr_address_t *addr =
      (ngx_http_kyr_address_t *)ngx_str_rbtree_lookup(&ngx_http_kyr_addresses, &key, hash);
  size_t hostLen = ngx_strlen(host);
  if (addr != NULL && addr->port == port && addr->host.len == hostLen &&
      ngx_strncmp(addr->host.data, host, hostLen) == 0) {
    return addr;
  }

  ngx_pool_t *pool = ngx_create_pool(1024, ngx_cycle->log);
  if (pool == NULL) return NULL;
  ngx_url_t url;
  ngx_memzero(&url, sizeof(ngx_url_t));
  /* An IPv6 address needs its brackets to be told from the port. */
  int bracket = strchr(host, ':') != NULL && host[0] != '[';
  url.url.data = ngx_pnalloc(pool, hostLen + sizeof("[]:65535"));
  u_char *hostCopy = ngx_pnalloc(pool, hostLen);
  if (url.url.data == NULL || hostCopy == NULL) goto failed;
  url.url.len = ngx_sprintf(url.url.data, bracket ? "[%s]:%d" : "%s:%d", host, port) - url.url.data;
  url.default_port = (in_port_t)port;
  if (ngx_parse_url(pool, &url) != NGX_OK || url.naddrs == 0) {
    ngx_log_error(NGX_LOG_ERR, log, 0, "kyr: endpoint \"%s\" at \"%V\": %s", name, &url.url,
                  url.err != NULL ? url.err : "host not found");
    goto failed;
  }
  ngx_memcpy(hostCopy, host, hostLen);
  if (addr == NULL) {
    addr = ngx_pcalloc(ngx_cycle->pool, sizeof(ngx_http_kyr_address_t));
    u_char *keyCopy = ngx_pnalloc(ngx_cycle->pool, key.len);
    if (addr == NULL || keyCopy == NULL) goto failed;
    ngx_memcpy(keyCopy, key.data, key.len);
    addr->node.str.data = keyCopy;
    addr->node.str.len = key.len;
    addr->node.node.key = hash;
    ngx_rbtree_insert(&ngx_http_kyr_addresses, &addr->node.node);
  } else {
    ngx_destroy_pool(addr->pool);
  }
  addr->pool = pool;
  addr->host.data = hostCopy;
  addr->host.len = hostLen;
  addr->port = port;
  addr->sockaddr = url.addrs[0].sockaddr;
  addr->socklen = url.addrs[0].socklen;
  addr->name = url.addrs[0].name;
  return addr;

failed:
  ngx_destroy_pool(pool);
  return NULL;
}

static ngx_int_t ngx_http_kyr_get_peer(ngx_peer_connection_t *pc, void *data) {
  ngx_http_kyr_ctx_t *ctx = data;
  /* An endpoint that does not resolve counts as one that refused the connection. */
  for (ngx_uint_t attempt = 0; attempt < NGX_HTTP_KYR_MAX_TRIES; attempt++) {
    KyrTargetEndpoint *endpoint = kyrHttpContextGetTargetEndpoint(ctx->kctx);
    if (endpoint == NULL) {
      ngx_log_error(NGX_LOG_ERR, pc->log, 0, "kyr: no endpoint is left for \"%s\"",
                    kyrHttpContextGetURL(ctx->kctx));
      return NGX_BUSY;
    }
    ngx_http_kyr_address_t *addr = ngx_http_kyr_address(endpoint, pc->log);
    if (addr == NULL) {
      kyrHttpContextSetState(ctx->kctx, CONNECT_FAILURE, 0, "address not resolved");
      continue;
    }
    pc->sockaddr = addr->sockaddr;
    pc->socklen = addr->socklen;
    pc->name = &addr->name;
    /* The library measures service times from here; a connection is opened at once. */
    kyrHttpContextSetState(ctx->kctx, REQUEST_SENDING, 0, NULL);
    ctx->forwarding = 1;
    return NGX_OK;
  }
  return NGX_BUSY;
}

/* Which step of the exchange with the endpoint failed. */
static KyrHttpContextState ngx_http_kyr_failure(ngx_http_request_t *r, ngx_peer_connection_t *pc,
                                                const char **what) {
  ngx_http_upstream_t *u = r->upstream;
  if (u->state == NULL || u->state->connect_time == (ngx_msec_t)-1) {
    *what = "connect failed";
    return CONNECT_FAILURE;
  }
  if (pc->connection != NULL && pc->connection->read->timedout) {
    *what = "response timed out";
    return RESPONSE_TIMEOUT;
  }
  if (pc->connection != NULL && pc->connection->write->timedout) {
    *what = "request send timed out";
    return REQUEST_SEND_ERROR;
  }
  *what = "response read failed";
  return RESPONSE_READ_ERROR;
}

static void ngx_http_kyr_free_peer(ngx_peer_connection_t *pc, void *data, ngx_uint_t state) {
  ngx_http_kyr_ctx_t *ctx = data;
  if (pc->tries > 0) pc->tries--;
  if (!ctx->forwarding) return;
  if (state & NGX_PEER_FAILED) {
    const char *what;
    KyrHttpContextState failure = ngx_http_kyr_failure(ctx->r, pc, &what);
    ctx->forwarding = 0;
    ngx_log_error(NGX_LOG_WARN, pc->log, 0, "kyr: %s at endpoint %V, the library chooses again",
                  what, pc->name);
    kyrHttpContextSetState(ctx->kctx, failure, 0, what);
  } else if (state & NGX_PEER_NEXT) {
    /* The endpoint answered (403 or 404 with proxy_next_upstream): another attempt would
     * go to the same endpoint. */
    pc->tries = 0;
  }
}

static ngx_int_t ngx_http_kyr_init_peer(ngx_http_request_t *r, ngx_http_upstream_srv_conf_t *us) {
  ngx_http_kyr_ctx_t *ctx = ngx_http_get_module_ctx(r, ngx_http_kyr_module);
  if (ctx == NULL || !ctx->routed) {
    ngx_log_error(NGX_LOG_ERR, r->connection->log, 0,
                  "kyr: upstream \"%V\" serves only locations with \"kyr_route on\"", &us->host);
    return NGX_ERROR;
  }
  ctx->balanced = 1;
  ngx_http_upstream_t *u = r->upstream;
  u->peer.data = ctx;
  u->peer.get = ngx_http_kyr_get_peer;
  u->peer.free = ngx_http_kyr_free_peer;
  u->peer.tries = NGX_HTTP_KYR_MAX_TRIES;
  return NGX_OK;
}
