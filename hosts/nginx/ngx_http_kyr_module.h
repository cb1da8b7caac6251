/*
 * ngx_http_kyr_module: kyrlib as an nginx module. This header holds what the module's files
 * share: the configuration, the per-request context and the calls between the files
 * (directives and lifecycle, the library handle, the host callbacks, the routing-document
 * transport, the request phase with the response filter, and the balancer).
 */
#ifndef NGX_HTTP_KYR_MODULE_H
#define NGX_HTTP_KYR_MODULE_H

#include <ngx_config.h>
#include <ngx_core.h>
#include <ngx_http.h>

#include "kyrlib.h"

/* One kyr_connector_group: the publishers are tried in the order given. */
typedef struct {
  ngx_str_t name;
  ngx_array_t urls;       /* ngx_str_t */
  ngx_array_t properties; /* ngx_keyval_t from kyr_group_property */
} ngx_http_kyr_group_conf_t;

/* Every string below is NUL-terminated: the library takes C strings. */
typedef struct {
  ngx_str_t catalogue_path;
  ngx_str_t catalogue; /* the file's text, read by the master: workers may not read the file */
  ngx_str_t trace_spec;
  ngx_str_t server_name;
  ngx_array_t *properties; /* ngx_keyval_t from kyr_property */
  ngx_array_t *groups;     /* ngx_http_kyr_group_conf_t */
  ngx_str_t document_path;
  ngx_str_t document; /* the routing document's text, checked to be a JSON object */
  ngx_str_t socket_path;
  ngx_flag_t used; /* a kyr_ directive appears: the workers create a handle */
} ngx_http_kyr_main_conf_t;

typedef struct {
  ngx_flag_t route;
  /* What the application is told of the client's identity ($ZQRU, $ZQAT, $ZQCC): nginx cannot
   * tell an authenticated user or a verified certificate from what a client merely sends, so
   * only the configuration names them (e.g. $remote_user under auth_basic). NULL: nothing. */
  ngx_http_complex_value_t *user;
  ngx_http_complex_value_t *auth_type;
  ngx_http_complex_value_t *client_certificate;
  ngx_uint_t ssl_map_mode; /* a KyrSSLMapMode, or NGX_CONF_UNSET_UINT for the cell's */
} ngx_http_kyr_loc_conf_t;

/* One request routed by the library; lives in the request pool, whose cleanup releases kctx. */
typedef struct {
  ngx_http_request_t *r;
  KyrHttpContext *kctx;
  unsigned routed : 1;     /* the library chose an endpoint for the request */
  unsigned balanced : 1;   /* kyr_upstream took it over, and reports how it ends */
  unsigned forwarding : 1; /* a connection to that endpoint is being tried or used */
  /* The private headers the library added to the request, a bit per name by its place in the
   * module's table: one not added yet needs no search (the library adds each once). */
  uint16_t private_headers_added;
  /* The port the client addressed, once the library asked for it (it asks several times per
   * request); 0 before. */
  int virtual_port;
} ngx_http_kyr_ctx_t;

/* The routing document is served as the only connector of this group. */
#define NGX_HTTP_KYR_DOCUMENT_GROUP "routing-document"

extern ngx_module_t ngx_http_kyr_module;

/* This worker's handle; NULL where the module is not used or outside workers. */
extern Kyr *ngx_http_kyr_handle;

/* ngx_http_kyr_handle.c: a configured, not yet started handle, or NULL with err set. */
Kyr *ngx_http_kyr_create_handle(ngx_http_kyr_main_conf_t *kmcf, TrPrintf trace, char *err,
                                size_t errlen);
/* Builds a handle from the configuration in a child process, so that what the library refuses
 * fails the configuration test and a reload without touching the master. */
ngx_int_t ngx_http_kyr_check_configuration(ngx_http_kyr_main_conf_t *kmcf, ngx_log_t *log);

/* ngx_http_kyr_env.c: the callback table over ngx_http_request_t. */
void ngx_http_kyr_set_callbacks(EnvCallBacks *env, TrPrintf trace);
void ngx_http_kyr_trace_to_log(TrContext *context, va_list args);
void ngx_http_kyr_block_signals(void);

/* ngx_http_kyr_static.c: serves the routing document to its connector as a publisher would,
 * and passes every other connector to the library's own transport. */
void ngx_http_kyr_static_transport(EnvCallBacks *env, const EnvCallBacks *builtin);
void ngx_http_kyr_static_serve(KyrConnector *connector, const char *document);

/* ngx_http_kyr_request.c */
ngx_int_t ngx_http_kyr_route_handler(ngx_http_request_t *r);
ngx_int_t ngx_http_kyr_install_filter(ngx_conf_t *cf);

/* ngx_http_kyr_balancer.c */
char *ngx_http_kyr_upstream(ngx_conf_t *cf, ngx_command_t *cmd, void *conf);

/* ngx_http_kyr_variables.c */
ngx_int_t ngx_http_kyr_add_variables(ngx_conf_t *cf);

/* ngx_http_kyr_status.c */
char *ngx_http_kyr_status(ngx_conf_t *cf, ngx_command_t *cmd, void *conf);

#endif /* NGX_HTTP_KYR_MODULE_H */
