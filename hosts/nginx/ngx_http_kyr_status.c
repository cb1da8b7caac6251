/*
 * kyr_status: a location that answers with the library's state report of the worker that
 * serves the request (JSON: routing data, servers, connector groups, process role), for
 * operators and tests; the X-Kyr-Process header names the worker and its role. Like
 * stub_status, it belongs behind an allow/deny.
 */
#include <stdlib.h>

#include "ngx_http_kyr_module.h"

static ngx_int_t ngx_http_kyr_status_handler(ngx_http_request_t *r) {
  if (r->method != NGX_HTTP_GET && r->method != NGX_HTTP_HEAD) return NGX_HTTP_NOT_ALLOWED;
  ngx_int_t rc = ngx_http_discard_request_body(r);
  if (rc != NGX_OK) return rc;
  if (ngx_http_kyr_handle == NULL) return NGX_HTTP_SERVICE_UNAVAILABLE;

  /* The report takes the library's control lock: while a document is being applied, this
   * worker waits for it. */
  char *report = kyrToJSONString(ngx_http_kyr_handle);
  if (report == NULL) return NGX_HTTP_INTERNAL_SERVER_ERROR;
  size_t len = ngx_strlen(report);
  ngx_buf_t *b = ngx_create_temp_buf(r->pool, len + 1);
  if (b == NULL) {
    free(report);
    return NGX_HTTP_INTERNAL_SERVER_ERROR;
  }
  b->last = ngx_cpymem(b->last, report, len);
  *b->last++ = '\n';
  free(report);
  b->last_buf = r == r->main;
  b->last_in_chain = 1;

  /* Which worker answered, and its part in sharing the routing data. */
  ngx_table_elt_t *role = ngx_list_push(&r->headers_out.headers);
  if (role == NULL) return NGX_HTTP_INTERNAL_SERVER_ERROR;
  role->hash = 1;
  ngx_str_set(&role->key, "X-Kyr-Process");
  role->value.data = ngx_pnalloc(r->pool, sizeof("standalone worker 18446744073709551615"));
  if (role->value.data == NULL) return NGX_HTTP_INTERNAL_SERVER_ERROR;
  role->value.len = ngx_sprintf(role->value.data, "%s worker %ui",
                                kyrIsServerProcess(ngx_http_kyr_handle)   ? "server"
                                : kyrIsClientProcess(ngx_http_kyr_handle) ? "client"
                                                                          : "standalone",
                                ngx_worker) -
                    role->value.data;

  ngx_str_set(&r->headers_out.content_type, "application/json");
  r->headers_out.content_type_len = r->headers_out.content_type.len;
  r->headers_out.status = NGX_HTTP_OK;
  r->headers_out.content_length_n = (off_t)(len + 1);
  rc = ngx_http_send_header(r);
  if (rc == NGX_ERROR || rc > NGX_OK || r->header_only) return rc;
  ngx_chain_t out = {b, NULL};
  return ngx_http_output_filter(r, &out);
}

char *ngx_http_kyr_status(ngx_conf_t *cf, ngx_command_t *cmd, void *conf) {
  (void)cmd;
  (void)conf;
  ngx_http_core_loc_conf_t *clcf = ngx_http_conf_get_module_loc_conf(cf, ngx_http_core_module);
  clcf->handler = ngx_http_kyr_status_handler;
  return NGX_CONF_OK;
}
