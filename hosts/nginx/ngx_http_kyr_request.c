/*
 * A routed request's life on nginx's side: the phase handler that asks the library where the
 * request goes (or answers it with the library's reject or redirect), the pool cleanup that
 * releases the library's context with the request, and the header filter that hands the
 * endpoint's response to the library (partition headers out, affinity cookies in).
 */
#include "ngx_http_kyr_module.h"

static ngx_http_output_header_filter_pt ngx_http_kyr_next_header_filter;

/* A routed request that another upstream forwarded never tells the library how it ended, so
 * the chosen servers' outstanding counts only grow until their connection limits turn requests
 * away. nginx -t cannot always tell (proxy_pass may take variables): the first such request of
 * a worker says so. */
static void ngx_http_kyr_check_upstream(ngx_http_kyr_ctx_t *ctx) {
  static ngx_flag_t warned;
  if (warned || !ctx->routed || ctx->balanced || ctx->r->upstream == NULL) return;
  warned = 1;
  ngx_log_error(NGX_LOG_WARN, ngx_cycle->log, 0,
                "kyr: a request routed with \"kyr_route on\" went to an upstream without "
                "\"kyr_upstream\": the library never learns how such requests end, and its "
                "servers' outstanding request counts only grow");
}

static void ngx_http_kyr_release(void *data) {
  ngx_http_kyr_ctx_t *ctx = data;
  ngx_http_kyr_check_upstream(ctx);
  kyrHttpContextRelease(ctx->kctx);
}

/* The private headers speak for this web server; a client must not be able to send its own.
 * nginx drops such names by default (they hold '$' or '_'), unless told to keep them. */
static int ngx_http_kyr_has_private_header(ngx_http_request_t *r) {
  for (ngx_list_part_t *part = &r->headers_in.headers.part; part != NULL; part = part->next) {
    ngx_table_elt_t *h = part->elts;
    for (ngx_uint_t i = 0; i < part->nelts; i++) {
      /* A browser sends a dozen headers, none beginning so: the first character settles it. */
      if (h[i].key.len < 3 || (h[i].key.data[0] != '$' && h[i].key.data[0] != '_')) continue;
      if (ngx_strncasecmp(h[i].key.data, (u_char *)"$zq", 3) == 0 ||
          (h[i].key.len >= 4 && ngx_strncasecmp(h[i].key.data, (u_char *)"_zq_", 4) == 0)) {
        return 1;
      }
    }
  }
  return 0;
}

/* A status the library chose, as nginx can send it. */
static ngx_int_t ngx_http_kyr_reject_status(ngx_http_request_t *r, KyrHttpContext *kctx) {
  int code = kyrHttpContextGetErrorCode(kctx);
  const char *why = kyrHttpContextGetErrorMsg(kctx);
  ngx_log_error(NGX_LOG_INFO, r->connection->log, 0, "kyr: request rejected with %d: %s", code,
                why != NULL ? why : "no reason given");
  return code >= 400 && code <= 599 ? code : NGX_HTTP_INTERNAL_SERVER_ERROR;
}

static ngx_int_t ngx_http_kyr_redirect(ngx_http_request_t *r, KyrHttpContext *kctx) {
  const char *url = kyrHttpContextGetRedirectURL(kctx);
  if (url == NULL) return NGX_HTTP_INTERNAL_SERVER_ERROR;
  ngx_http_clear_location(r);
  ngx_table_elt_t *location = ngx_list_push(&r->headers_out.headers);
  if (location == NULL) return NGX_HTTP_INTERNAL_SERVER_ERROR;
  size_t len = ngx_strlen(url);
  location->value.data = ngx_pnalloc(r->pool, len);
  if (location->value.data == NULL) return NGX_HTTP_INTERNAL_SERVER_ERROR;
  ngx_memcpy(location->value.data, url, len);
  location->value.len = len;
  location->hash = 1;
  ngx_str_set(&location->key, "Location");
  r->headers_out.location = location;
  return NGX_HTTP_MOVED_TEMPORARILY;
}

ngx_int_t ngx_http_kyr_route_handler(ngx_http_request_t *r) {
  ngx_http_kyr_loc_conf_t *klcf = ngx_http_get_module_loc_conf(r, ngx_http_kyr_module);
  if (!klcf->route || ngx_http_get_module_ctx(r, ngx_http_kyr_module) != NULL) {
    return NGX_DECLINED;
  }
  if (ngx_http_kyr_handle == NULL) {
    ngx_log_error(NGX_LOG_ERR, r->connection->log, 0, "kyr: no library handle in this process");
    return NGX_HTTP_SERVICE_UNAVAILABLE;
  }
  if (ngx_http_kyr_has_private_header(r)) {
    ngx_log_error(NGX_LOG_INFO, r->connection->log, 0, "kyr: client sent a private routing header");
    return NGX_HTTP_BAD_REQUEST;
  }
  ngx_http_kyr_ctx_t *ctx = ngx_pcalloc(r->pool, sizeof(ngx_http_kyr_ctx_t));
  ngx_pool_cleanup_t *cln = ngx_pool_cleanup_add(r->pool, 0);
  if (ctx == NULL || cln == NULL) return NGX_HTTP_INTERNAL_SERVER_ERROR;
  ctx->r = r;
  ctx->kctx = kyrHttpContextObtain(ngx_http_kyr_handle, (EnvHttpContext *)r);
  if (ctx->kctx == NULL) return NGX_HTTP_SERVICE_UNAVAILABLE;
  cln->handler = ngx_http_kyr_release;
  cln->data = ctx;
  ngx_http_set_ctx(r, ctx, ngx_http_kyr_module);
  if (klcf->ssl_map_mode != NGX_CONF_UNSET_UINT) {
    kyrHttpContextSetSSLMapMode(ctx->kctx, (KyrSSLMapMode)klcf->ssl_map_mode);
  }

  switch (kyrHttpContextShouldHandle(ctx->kctx)) {
    case 1:
      break;
    case 0:
      return NGX_HTTP_NOT_FOUND; /* no web module serves this URL */
    default:
      return NGX_HTTP_BAD_REQUEST;
  }
  switch (kyrHttpContextGetAction(ctx->kctx)) {
    case REJECT:
      return ngx_http_kyr_reject_status(r, ctx->kctx);
    case REDIRECT:
      return ngx_http_kyr_redirect(r, ctx->kctx);
    case SUSPEND:
      /* Nothing here resumes a suspended request. */
      return NGX_HTTP_SERVICE_UNAVAILABLE;
    default:
      break;
  }
  /* Choosing the endpoint adds the private headers, before the proxy builds its request. The
   * balancer asks again when it connects, and gets this endpoint until one fails. */
  if (kyrHttpContextGetTargetEndpoint(ctx->kctx) == NULL) {
    if (kyrHttpContextGetAction(ctx->kctx) == REJECT)
      return ngx_http_kyr_reject_status(r, ctx->kctx);
    ngx_log_error(NGX_LOG_WARN, r->connection->log, 0,
                  "kyr: no server can take the request for \"%s\"",
                  kyrHttpContextGetURL(ctx->kctx));
    return NGX_HTTP_SERVICE_UNAVAILABLE;
  }
  ctx->routed = 1;
  return NGX_DECLINED;
}

/* The endpoint answered: the library learns partition tables, removes their headers and sets
 * the affinity cookies, all on the response nginx is about to send. */
static ngx_int_t ngx_http_kyr_header_filter(ngx_http_request_t *r) {
  ngx_http_kyr_ctx_t *ctx = ngx_http_get_module_ctx(r, ngx_http_kyr_module);
  if (ctx != NULL && ctx->forwarding && r->upstream != NULL &&
      r->upstream->peer.connection != NULL) {
    ctx->forwarding = 0;
    kyrHttpContextSetState(ctx->kctx, CONNECT_SUCCESS, 0, NULL);
    kyrHttpContextSetState(ctx->kctx, RESPONSE_ARRIVED, 0, NULL);
  }
  return ngx_http_kyr_next_header_filter(r);
}

ngx_int_t ngx_http_kyr_install_filter(ngx_conf_t *cf) {
  (void)cf;
  ngx_http_kyr_next_header_filter = ngx_http_top_header_filter;
  ngx_http_top_header_filter = ngx_http_kyr_header_filter;
  return NGX_OK;
}
