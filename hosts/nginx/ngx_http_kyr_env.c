/*
 * The host callbacks over ngx_http_request_t (the EnvHttpContext the library passes back): what
 * the library reads of a request, the private headers it adds for the proxied request, the
 * response headers and cookies it reads and writes, and the trace output it prints.
 *
 * The request and response callbacks run only inside the library calls the worker's event loop
 * makes, so they use the request pool freely; every string handed to the library is a
 * NUL-terminated copy in that pool, valid until the request ends. Trace output comes from the
 * library's threads as well.
 */
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "ngx_http_kyr_module.h"

static ngx_http_request_t *ngx_http_kyr_request(EnvHttpContext *ctx) {
  return (ngx_http_request_t *)ctx;
}

static char *ngx_http_kyr_cstr(ngx_http_request_t *r, const u_char *data, size_t len) {
  char *s = ngx_pnalloc(r->pool, len + 1);
  if (s == NULL) return NULL;
  ngx_memcpy(s, data, len);
  s[len] = '\0';
  return s;
}

static int ngx_http_kyr_key_is(ngx_table_elt_t *h, const char *name, size_t len) {
  return h->key.len == len && ngx_strncasecmp(h->key.data, (u_char *)name, len) == 0;
}

/* Loops over the live entries of a header list: nginx marks a removed one with hash 0. */
#define NGX_HTTP_KYR_FOR_EACH_HEADER(list, h)                                      \
  for (ngx_list_part_t *part_ = &(list)->part; part_ != NULL; part_ = part_->next) \
    for (ngx_uint_t i_ = 0; i_ < part_->nelts; i_++)                               \
      if (((h) = (ngx_table_elt_t *)part_->elts + i_)->hash != 0)

static ngx_table_elt_t *ngx_http_kyr_find(ngx_list_t *list, const char *name) {
  size_t len = strlen(name);
  ngx_table_elt_t *h;
  NGX_HTTP_KYR_FOR_EACH_HEADER(list, h) {
    if (ngx_http_kyr_key_is(h, name, len)) return h;
  }
  return NULL;
}

/* Every value of the header, NULL-terminated. */
static char **ngx_http_kyr_values(ngx_http_request_t *r, ngx_list_t *list, const char *name) {
  size_t len = strlen(name);
  ngx_uint_t count = 0;
  ngx_table_elt_t *h;
  NGX_HTTP_KYR_FOR_EACH_HEADER(list, h) {
    if (ngx_http_kyr_key_is(h, name, len)) count++;
  }
  if (count == 0) return NULL;
  char **values = ngx_pcalloc(r->pool, (count + 1) * sizeof(char *));
  if (values == NULL) return NULL;
  ngx_uint_t n = 0;
  NGX_HTTP_KYR_FOR_EACH_HEADER(list, h) {
    if (ngx_http_kyr_key_is(h, name, len))
      values[n++] = ngx_http_kyr_cstr(r, h->value.data, h->value.len);
  }
  return values;
}

static int ngx_http_kyr_set_value(ngx_http_request_t *r, ngx_table_elt_t *h, const char *value) {
  size_t len = strlen(value);
  h->value.data = (u_char *)ngx_http_kyr_cstr(r, (const u_char *)value, len);
  h->value.len = h->value.data != NULL ? len : 0;
  return h->value.data != NULL ? 0 : -1;
}

/* A header's name as nginx keeps it: the proxy looks request headers up by the lower-case name
 * and its hash. */
typedef struct {
  ngx_str_t key;
  u_char *lowcase_key;
  ngx_uint_t hash;
} ngx_http_kyr_name_t;

/* A name that is not one of the module's own, in one block of the pool. */
static int ngx_http_kyr_pool_name(ngx_http_request_t *r, const char *name, size_t len,
                                  ngx_http_kyr_name_t *out) {
  u_char *block = ngx_pnalloc(r->pool, 2 * (len + 1));
  if (block == NULL) return -1;
  ngx_memcpy(block, name, len + 1);
  out->key.data = block;
  out->key.len = len;
  out->lowcase_key = block + len + 1;
  out->hash = ngx_hash_strlow(out->lowcase_key, block, len);
  out->lowcase_key[len] = '\0';
  return 0;
}

/* A new header with a copy of the value; nginx skips an entry whose hash is 0, as the list
 * keeps one whose value could not be copied. */
static ngx_table_elt_t *ngx_http_kyr_push(ngx_http_request_t *r, ngx_list_t *list,
                                          const ngx_http_kyr_name_t *name, const char *value) {
  ngx_table_elt_t *h = ngx_list_push(list);
  if (h == NULL) return NULL;
  h->hash = 0;
  h->key = name->key;
  h->lowcase_key = name->lowcase_key;
  if (ngx_http_kyr_set_value(r, h, value) != 0) return NULL;
  h->hash = name->hash;
  return h;
}

static ngx_table_elt_t *ngx_http_kyr_push_named(ngx_http_request_t *r, ngx_list_t *list,
                                                const char *name, const char *value) {
  ngx_http_kyr_name_t pooled;
  if (ngx_http_kyr_pool_name(r, name, strlen(name), &pooled) != 0) return NULL;
  return ngx_http_kyr_push(r, list, &pooled, value);
}

/* ---- Request ---------------------------------------------------------------------------- */

static in_port_t ngx_http_kyr_local_port(ngx_http_request_t *r) {
  if (ngx_connection_local_sockaddr(r->connection, NULL, 0) != NGX_OK) return 0;
  return ngx_inet_get_port(r->connection->local_sockaddr);
}

static char *ngx_http_kyr_get_client_ip(EnvHttpContext *ctx) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  return ngx_http_kyr_cstr(r, r->connection->addr_text.data, r->connection->addr_text.len);
}

static char *ngx_http_kyr_get_local_address(EnvHttpContext *ctx) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  u_char text[NGX_SOCKADDR_STRLEN];
  ngx_str_t addr = {sizeof text, text};
  if (ngx_connection_local_sockaddr(r->connection, &addr, 0) != NGX_OK) return NULL;
  return ngx_http_kyr_cstr(r, addr.data, addr.len);
}

static char *ngx_http_kyr_get_protocol_version(EnvHttpContext *ctx) {
  switch (ngx_http_kyr_request(ctx)->http_version) {
    case NGX_HTTP_VERSION_9:
      return "HTTP/0.9";
    case NGX_HTTP_VERSION_10:
      return "HTTP/1.0";
    case NGX_HTTP_VERSION_20:
      return "HTTP/2.0";
    default:
      return "HTTP/1.1";
  }
}

static int ngx_http_kyr_get_listening_port(EnvHttpContext *ctx) {
  return ngx_http_kyr_local_port(ngx_http_kyr_request(ctx));
}

static char *ngx_http_kyr_get_virtual_host(EnvHttpContext *ctx) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  if (r->headers_in.server.len > 0) {
    return ngx_http_kyr_cstr(r, r->headers_in.server.data, r->headers_in.server.len);
  }
  ngx_http_core_srv_conf_t *cscf = ngx_http_get_module_srv_conf(r, ngx_http_core_module);
  return ngx_http_kyr_cstr(r, cscf->server_name.data, cscf->server_name.len);
}

/* The port the client addressed: the Host header's, else the one it connected to. */
static int ngx_http_kyr_virtual_port(ngx_http_request_t *r) {
  if (r->headers_in.host != NULL) {
    ngx_str_t *host = &r->headers_in.host->value;
    u_char *end = host->data + host->len;
    u_char *colon = NULL;
    for (u_char *p = host->data; p < end; p++) {
      if (*p == ']') colon = NULL; /* an IPv6 address's colons are not the port's */
      if (*p == ':') colon = p;
    }
    if (colon != NULL && colon + 1 < end) {
      ngx_int_t port = ngx_atoi(colon + 1, end - colon - 1);
      if (port > 0 && port <= 65535) return (int)port;
    }
  }
  return ngx_http_kyr_local_port(r);
}

static int ngx_http_kyr_get_virtual_port(EnvHttpContext *ctx) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  ngx_http_kyr_ctx_t *kctx = ngx_http_get_module_ctx(r, ngx_http_kyr_module);
  if (kctx == NULL) return ngx_http_kyr_virtual_port(r);
  if (kctx->virtual_port == 0) kctx->virtual_port = ngx_http_kyr_virtual_port(r);
  return kctx->virtual_port;
}

static char *ngx_http_kyr_get_protocol(EnvHttpContext *ctx) {
#if (NGX_HTTP_SSL)
  if (ngx_http_kyr_request(ctx)->connection->ssl != NULL) return "https";
#else
  (void)ctx;
#endif
  return "http";
}

static char *ngx_http_kyr_get_method(EnvHttpContext *ctx) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  return ngx_http_kyr_cstr(r, r->method_name.data, r->method_name.len);
}

/* The normalised path: rules and context roots see what nginx's own locations see. */
static char *ngx_http_kyr_get_path(EnvHttpContext *ctx) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  return ngx_http_kyr_cstr(r, r->uri.data, r->uri.len);
}

static char *ngx_http_kyr_get_query_string(EnvHttpContext *ctx) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  return r->args.len > 0 ? ngx_http_kyr_cstr(r, r->args.data, r->args.len) : NULL;
}

/* The configured value of an identity directive for this request, or NULL when the location
 * has none or it comes out empty. */
static char *ngx_http_kyr_identity(EnvHttpContext *ctx, size_t offset) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  ngx_http_kyr_loc_conf_t *klcf = ngx_http_get_module_loc_conf(r, ngx_http_kyr_module);
  ngx_http_complex_value_t *cv = *(ngx_http_complex_value_t **)((u_char *)klcf + offset);
  ngx_str_t value;
  if (cv == NULL || ngx_http_complex_value(r, cv, &value) != NGX_OK || value.len == 0) {
    return NULL;
  }
  return ngx_http_kyr_cstr(r, value.data, value.len);
}

static char *ngx_http_kyr_get_user_name(EnvHttpContext *ctx) {
  return ngx_http_kyr_identity(ctx, offsetof(ngx_http_kyr_loc_conf_t, user));
}

static char *ngx_http_kyr_get_auth_type(EnvHttpContext *ctx) {
  return ngx_http_kyr_identity(ctx, offsetof(ngx_http_kyr_loc_conf_t, auth_type));
}

static char *ngx_http_kyr_get_client_certificate(EnvHttpContext *ctx) {
  return ngx_http_kyr_identity(ctx, offsetof(ngx_http_kyr_loc_conf_t, client_certificate));
}

static char *ngx_http_kyr_get_ssl_cipher_suite(EnvHttpContext *ctx) {
#if (NGX_HTTP_SSL)
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  ngx_str_t s = ngx_null_string;
  if (r->connection->ssl != NULL && ngx_ssl_get_cipher_name(r->connection, r->pool, &s) == NGX_OK &&
      s.len > 0) {
    return ngx_http_kyr_cstr(r, s.data, s.len);
  }
#else
  (void)ctx;
#endif
  return NULL;
}

static char *ngx_http_kyr_get_ssl_session_id(EnvHttpContext *ctx) {
#if (NGX_HTTP_SSL)
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  ngx_str_t s = ngx_null_string;
  if (r->connection->ssl != NULL && ngx_ssl_get_session_id(r->connection, r->pool, &s) == NGX_OK &&
      s.len > 0) {
    return ngx_http_kyr_cstr(r, s.data, s.len);
  }
#else
  (void)ctx;
#endif
  return NULL;
}

static char *ngx_http_kyr_get_request_header(EnvHttpContext *ctx, char *name) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  ngx_table_elt_t *h = ngx_http_kyr_find(&r->headers_in.headers, name);
  return h != NULL ? ngx_http_kyr_cstr(r, h->value.data, h->value.len) : NULL;
}

static char **ngx_http_kyr_get_request_headers(EnvHttpContext *ctx, char *name) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  return ngx_http_kyr_values(r, &r->headers_in.headers, name);
}

/* The names of the private headers, with their lower-case forms and hashes made once: the
 * library sets a dozen of them on every request. Each has a place among 64 by its last two
 * characters (the names begin alike), and these names take different places; a name without
 * one of its own goes the general way. */
#define NGX_HTTP_KYR_PRIVATE_NAMES 14
typedef u_char ngx_http_kyr_private_text_t[sizeof("_ZQ_HAPRT_WLMVERSION")];
static ngx_http_kyr_private_text_t ngx_http_kyr_private_texts[NGX_HTTP_KYR_PRIVATE_NAMES] = {
    "_ZQ_HAPRT_WLMVERSION",
    "$ZQRA",
    "$ZQRH",
    "$ZQSN",
    "$ZQSP",
    "$ZQPR",
    "$ZQSC",
    "$ZQIS",
    "$ZQCC",
    "$ZQCS",
    "$ZQSI",
    "$ZQAT",
    "$ZQRU",
    "$ZQFO"};
static ngx_http_kyr_private_text_t ngx_http_kyr_private_lowcase[NGX_HTTP_KYR_PRIVATE_NAMES];
static ngx_http_kyr_name_t ngx_http_kyr_private_names[NGX_HTTP_KYR_PRIVATE_NAMES];
static int8_t ngx_http_kyr_private_places[64]; /* index + 1 of the name there; 0: none */

static ngx_uint_t ngx_http_kyr_private_place(const char *name, size_t len) {
  return ((u_char)name[len - 1] * 31u + (u_char)name[len - 2]) & 63;
}

static void ngx_http_kyr_private_names_init(void) {
  ngx_memzero(ngx_http_kyr_private_places, sizeof ngx_http_kyr_private_places);
  for (int i = 0; i < NGX_HTTP_KYR_PRIVATE_NAMES; i++) {
    ngx_http_kyr_name_t *name = &ngx_http_kyr_private_names[i];
    name->key.data = ngx_http_kyr_private_texts[i];
    name->key.len = ngx_strlen(name->key.data);
    if (name->key.len < 2) continue; /* the table is longer than its names */
    name->lowcase_key = ngx_http_kyr_private_lowcase[i];
    name->hash = ngx_hash_strlow(name->lowcase_key, name->key.data, name->key.len);
    int8_t *place = &ngx_http_kyr_private_places[ngx_http_kyr_private_place(
        (const char *)name->key.data, name->key.len)];
    if (*place == 0) *place = (int8_t)(i + 1);
  }
}

/* The name's index in the table, or -1. */
static int ngx_http_kyr_private_index(const char *name, size_t len) {
  if (len < 2) return -1;
  int index = ngx_http_kyr_private_places[ngx_http_kyr_private_place(name, len)] - 1;
  if (index < 0) return -1;
  const ngx_str_t *key = &ngx_http_kyr_private_names[index].key;
  if (key->len != len) return -1;
  for (size_t i = 0; i < len; i++) { /* names of a few characters: no call */
    if (key->data[i] != (u_char)name[i]) return -1;
  }
  return index;
}

/* The private headers go into the request's own headers, which the proxy forwards. A client
 * cannot have sent any of them (the route handler refuses such requests), so a NULL value,
 * "nothing to tell", finds nothing to remove; one the library set before is emptied. */
static int ngx_http_kyr_set_request_header(EnvHttpContext *ctx, char *name, char *value) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  ngx_http_kyr_ctx_t *kctx = ngx_http_get_module_ctx(r, ngx_http_kyr_module);
  size_t len = strlen(name);
  if (len == 0) return -1;
  int index = kctx != NULL ? ngx_http_kyr_private_index(name, len) : -1;
  uint16_t bit = index >= 0 ? (uint16_t)(1u << index) : 0;
  ngx_table_elt_t *h = bit != 0 && (kctx->private_headers_added & bit) == 0
                           ? NULL
                           : ngx_http_kyr_find(&r->headers_in.headers, name);
  if (value == NULL) {
    if (h != NULL) {
      ngx_str_set(&h->value, "");
    }
    return 0;
  }
  if (h != NULL) return ngx_http_kyr_set_value(r, h, value);
  if (bit == 0) return ngx_http_kyr_push_named(r, &r->headers_in.headers, name, value) ? 0 : -1;
  if (ngx_http_kyr_push(r, &r->headers_in.headers, &ngx_http_kyr_private_names[index], value) ==
      NULL) {
    return -1;
  }
  kctx->private_headers_added |= bit;
  return 0;
}

static char *ngx_http_kyr_get_request_cookie(EnvHttpContext *ctx, char *name) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  ngx_str_t key = {strlen(name), (u_char *)name};
  ngx_str_t value;
  if (ngx_http_parse_multi_header_lines(&r->headers_in.cookies, &key, &value) == NGX_DECLINED) {
    return NULL;
  }
  return ngx_http_kyr_cstr(r, value.data, value.len);
}

/* ---- Response --------------------------------------------------------------------------- */

static int ngx_http_kyr_get_response_code(EnvHttpContext *ctx) {
  return (int)ngx_http_kyr_request(ctx)->headers_out.status;
}

static char *ngx_http_kyr_get_response_header(EnvHttpContext *ctx, char *name) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  ngx_table_elt_t *h = ngx_http_kyr_find(&r->headers_out.headers, name);
  return h != NULL ? ngx_http_kyr_cstr(r, h->value.data, h->value.len) : NULL;
}

static char **ngx_http_kyr_get_response_headers(EnvHttpContext *ctx, char *name) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  return ngx_http_kyr_values(r, &r->headers_out.headers, name);
}

/* NULL removes every such header (nginx skips entries whose hash is 0); Set-Cookie adds one
 * more; any other name replaces the first value. */
static int ngx_http_kyr_set_response_header(EnvHttpContext *ctx, char *name, char *value) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  ngx_list_t *list = &r->headers_out.headers;
  if (value == NULL) {
    size_t len = strlen(name);
    ngx_table_elt_t *h;
    NGX_HTTP_KYR_FOR_EACH_HEADER(list, h) {
      if (ngx_http_kyr_key_is(h, name, len)) h->hash = 0;
    }
    return 0;
  }
  ngx_table_elt_t *h = strcasecmp(name, "Set-Cookie") == 0 ? NULL : ngx_http_kyr_find(list, name);
  if (h != NULL) return ngx_http_kyr_set_value(r, h, value);
  return ngx_http_kyr_push_named(r, list, name, value) != NULL ? 0 : -1;
}

static char *ngx_http_kyr_get_response_cookie(EnvHttpContext *ctx, char *name) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  size_t len = strlen(name);
  ngx_table_elt_t *h;
  NGX_HTTP_KYR_FOR_EACH_HEADER(&r->headers_out.headers, h) {
    if (!ngx_http_kyr_key_is(h, "Set-Cookie", sizeof("Set-Cookie") - 1)) continue;
    if (h->value.len <= len || h->value.data[len] != '=' ||
        ngx_strncmp(h->value.data, name, len) != 0) {
      continue;
    }
    u_char *start = h->value.data + len + 1;
    u_char *end = ngx_strlchr(start, h->value.data + h->value.len, ';');
    if (end == NULL) end = h->value.data + h->value.len;
    return ngx_http_kyr_cstr(r, start, end - start);
  }
  return NULL;
}

static int ngx_http_kyr_set_response_cookie(EnvHttpContext *ctx, char *name, char *value) {
  ngx_http_request_t *r = ngx_http_kyr_request(ctx);
  size_t len = strlen(name) + 1 + (value != NULL ? strlen(value) : 0);
  char *cookie = ngx_pnalloc(r->pool, len + 1);
  if (cookie == NULL) return -1;
  snprintf(cookie, len + 1, "%s=%s", name, value != NULL ? value : "");
  return ngx_http_kyr_push_named(r, &r->headers_out.headers, "Set-Cookie", cookie) != NULL ? 0 : -1;
}

/* ---- Process-wide ----------------------------------------------------------------------- */

/* The library's threads leave nginx's signals to the worker's own thread, which acts on them;
 * nginx's thread pools do the same. */
void ngx_http_kyr_block_signals(void) {
  sigset_t set;
  sigfillset(&set);
  sigdelset(&set, SIGILL);
  sigdelset(&set, SIGFPE);
  sigdelset(&set, SIGSEGV);
  sigdelset(&set, SIGBUS);
  pthread_sigmask(SIG_BLOCK, &set, NULL);
}

/* One error-log line per trace message, at the nginx level nearest the library's. */
void ngx_http_kyr_trace_to_log(TrContext *context, va_list args) {
  static const ngx_uint_t levels[] = {NGX_LOG_STDERR, NGX_LOG_CRIT, NGX_LOG_CRIT,
                                      NGX_LOG_CRIT,   NGX_LOG_ERR,  NGX_LOG_WARN,
                                      NGX_LOG_NOTICE, NGX_LOG_INFO, NGX_LOG_DEBUG};
  const char *format = trContextGetFormat(context);
  if (format == NULL) return;
  int index = trLevelNameToIndex(trContextGetLevel(context));
  ngx_uint_t level = index > 0 && index <= TR_LEVEL_DEBUG ? levels[index] : NGX_LOG_NOTICE;
  ngx_log_t *log = ngx_cycle->log;
  if (log->log_level < level) return;
  char line[2048];
  vsnprintf(line, sizeof line, format, args);
  size_t len = strlen(line);
  while (len > 0 && line[len - 1] == '\n') line[--len] = '\0';
  const char *id = trContextGetMessageId(context);
  ngx_log_error(level, log, 0, "kyr: %s%s%s", id != NULL ? id : "", id != NULL ? " " : "", line);
}

void ngx_http_kyr_set_callbacks(EnvCallBacks *env, TrPrintf trace) {
  ngx_http_kyr_private_names_init();
  ngx_memzero(env, sizeof(EnvCallBacks));
  env->version = KYR_ENV_CALLBACKS_VERSION;
  env->http.request.getClientIpAddr = ngx_http_kyr_get_client_ip;
  env->http.request.getLocalAddress = ngx_http_kyr_get_local_address;
  env->http.request.getProtocolVersion = ngx_http_kyr_get_protocol_version;
  env->http.request.getListeningPort = ngx_http_kyr_get_listening_port;
  env->http.request.getVirtualHost = ngx_http_kyr_get_virtual_host;
  env->http.request.getVirtualPort = ngx_http_kyr_get_virtual_port;
  env->http.request.getProtocol = ngx_http_kyr_get_protocol;
  env->http.request.getMethod = ngx_http_kyr_get_method;
  env->http.request.getPath = ngx_http_kyr_get_path;
  env->http.request.getQueryString = ngx_http_kyr_get_query_string;
  env->http.request.getAuthType = ngx_http_kyr_get_auth_type;
  env->http.request.getUserName = ngx_http_kyr_get_user_name;
  env->http.request.getClientCertificate = ngx_http_kyr_get_client_certificate;
  env->http.request.getSSLCipherSuite = ngx_http_kyr_get_ssl_cipher_suite;
  env->http.request.getSSLSessionId = ngx_http_kyr_get_ssl_session_id;
  env->http.request.getHeaderValue = ngx_http_kyr_get_request_header;
  env->http.request.getHeaderValues = ngx_http_kyr_get_request_headers;
  env->http.request.setHeaderValue = ngx_http_kyr_set_request_header;
  env->http.request.getCookieValue = ngx_http_kyr_get_request_cookie;
  env->http.response.getResponseCode = ngx_http_kyr_get_response_code;
  env->http.response.getHeaderValue = ngx_http_kyr_get_response_header;
  env->http.response.getHeaderValues = ngx_http_kyr_get_response_headers;
  env->http.response.setHeaderValue = ngx_http_kyr_set_response_header;
  env->http.response.getCookieValue = ngx_http_kyr_get_response_cookie;
  env->http.response.setCookieValue = ngx_http_kyr_set_response_cookie;
  env->threadInit = ngx_http_kyr_block_signals;
  env->trace.printf = trace;
}
