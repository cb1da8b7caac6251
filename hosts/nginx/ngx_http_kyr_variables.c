/*
 * Variables of a routed request: $kyr_scheme, the protocol of the endpoint the library chose
 * ("proxy_pass $kyr_scheme://upstream;" follows it to https endpoints), and $kyr_server, the
 * name of that endpoint's server (for logs and headers). Both are empty before routing.
 */
#include "ngx_http_kyr_module.h"

enum { NGX_HTTP_KYR_VAR_SCHEME, NGX_HTTP_KYR_VAR_SERVER };

static ngx_int_t ngx_http_kyr_variable(ngx_http_request_t *r, ngx_http_variable_value_t *v,
                                       uintptr_t which) {
  ngx_http_kyr_ctx_t *ctx = ngx_http_get_module_ctx(r, ngx_http_kyr_module);
  const char *value = NULL;
  if (ctx != NULL && ctx->routed) {
    value = which == NGX_HTTP_KYR_VAR_SCHEME
                ? kyrTargetEndpointGetProtocol(kyrHttpContextGetMyTargetEndPoint(ctx->kctx))
                : kyrHttpContextGetTargetEndpointServerName(ctx->kctx);
  }
  if (value == NULL) {
    v->not_found = 1;
    return NGX_OK;
  }
  /* The library's strings live as long as the request's context. */
  v->data = (u_char *)value;
  v->len = ngx_strlen(value);
  v->valid = 1;
  v->no_cacheable = 1;
  v->not_found = 0;
  return NGX_OK;
}

static ngx_http_variable_t ngx_http_kyr_variables[] = {
    {ngx_string("kyr_scheme"), NULL, ngx_http_kyr_variable, NGX_HTTP_KYR_VAR_SCHEME,
     NGX_HTTP_VAR_NOCACHEABLE, 0},
    {ngx_string("kyr_server"), NULL, ngx_http_kyr_variable, NGX_HTTP_KYR_VAR_SERVER,
     NGX_HTTP_VAR_NOCACHEABLE, 0},
    ngx_http_null_variable};

ngx_int_t ngx_http_kyr_add_variables(ngx_conf_t *cf) {
  for (ngx_http_variable_t *v = ngx_http_kyr_variables; v->name.len > 0; v++) {
    ngx_http_variable_t *var = ngx_http_add_variable(cf, &v->name, v->flags);
    if (var == NULL) return NGX_ERROR;
    var->get_handler = v->get_handler;
    var->data = v->data;
  }
  return NGX_OK;
}
