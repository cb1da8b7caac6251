/*
 * The module's face to nginx: its directives and their checks, the configuration structures,
 * and the worker lifecycle that creates, starts and destroys one library handle per worker.
 * Everything a directive refers to (catalogue, routing document) is read here, by the master,
 * and handed to the workers in memory.
 */
#include "ngx_http_kyr_module.h"

#include <jansson.h>
#include <stdio.h>
#include <string.h>

Kyr *ngx_http_kyr_handle;

static ngx_int_t ngx_http_kyr_preconfiguration(ngx_conf_t *cf);
static void *ngx_http_kyr_create_main_conf(ngx_conf_t *cf);
static char *ngx_http_kyr_init_main_conf(ngx_conf_t *cf, void *conf);
static void *ngx_http_kyr_create_loc_conf(ngx_conf_t *cf);
static char *ngx_http_kyr_merge_loc_conf(ngx_conf_t *cf, void *parent, void *child);
static ngx_int_t ngx_http_kyr_postconfiguration(ngx_conf_t *cf);
static ngx_int_t ngx_http_kyr_init_module(ngx_cycle_t *cycle);
static ngx_int_t ngx_http_kyr_init_process(ngx_cycle_t *cycle);
static void ngx_http_kyr_exit_process(ngx_cycle_t *cycle);
static char *ngx_http_kyr_trace_catalogue(ngx_conf_t *cf, ngx_command_t *cmd, void *conf);
static char *ngx_http_kyr_main_str(ngx_conf_t *cf, ngx_command_t *cmd, void *conf);
static char *ngx_http_kyr_property(ngx_conf_t *cf, ngx_command_t *cmd, void *conf);
static char *ngx_http_kyr_connector_group(ngx_conf_t *cf, ngx_command_t *cmd, void *conf);
static char *ngx_http_kyr_group_property(ngx_conf_t *cf, ngx_command_t *cmd, void *conf);
static char *ngx_http_kyr_routing_document(ngx_conf_t *cf, ngx_command_t *cmd, void *conf);
static char *ngx_http_kyr_socket(ngx_conf_t *cf, ngx_command_t *cmd, void *conf);
static char *ngx_http_kyr_route(ngx_conf_t *cf, ngx_command_t *cmd, void *conf);

/* How the protocol of the request maps to the protocol of the server's endpoint. */
static ngx_conf_enum_t ngx_http_kyr_ssl_map_modes[] = {
    {ngx_string("inbound"), MapInboundToOutbound},
    {ngx_string("offload"), SSLOffLoad},
    {ngx_string("onload"), SSLOnLoad},
    {ngx_null_string, 0}};

static ngx_command_t ngx_http_kyr_commands[] = {
    {ngx_string("kyr_trace_catalogue"), NGX_HTTP_MAIN_CONF | NGX_CONF_TAKE1,
     ngx_http_kyr_trace_catalogue, NGX_HTTP_MAIN_CONF_OFFSET, 0, NULL},
    {ngx_string("kyr_trace_spec"), NGX_HTTP_MAIN_CONF | NGX_CONF_TAKE1, ngx_http_kyr_main_str,
     NGX_HTTP_MAIN_CONF_OFFSET, offsetof(ngx_http_kyr_main_conf_t, trace_spec), NULL},
    {ngx_string("kyr_server_name"), NGX_HTTP_MAIN_CONF | NGX_CONF_TAKE1, ngx_http_kyr_main_str,
     NGX_HTTP_MAIN_CONF_OFFSET, offsetof(ngx_http_kyr_main_conf_t, server_name), NULL},
    {ngx_string("kyr_property"), NGX_HTTP_MAIN_CONF | NGX_CONF_TAKE2, ngx_http_kyr_property,
     NGX_HTTP_MAIN_CONF_OFFSET, 0, NULL},
    {ngx_string("kyr_connector_group"), NGX_HTTP_MAIN_CONF | NGX_CONF_2MORE,
     ngx_http_kyr_connector_group, NGX_HTTP_MAIN_CONF_OFFSET, 0, NULL},
    {ngx_string("kyr_group_property"), NGX_HTTP_MAIN_CONF | NGX_CONF_TAKE3,
     ngx_http_kyr_group_property, NGX_HTTP_MAIN_CONF_OFFSET, 0, NULL},
    {ngx_string("kyr_routing_document"), NGX_HTTP_MAIN_CONF | NGX_CONF_TAKE1,
     ngx_http_kyr_routing_document, NGX_HTTP_MAIN_CONF_OFFSET, 0, NULL},
    {ngx_string("kyr_socket"), NGX_HTTP_MAIN_CONF | NGX_CONF_TAKE1, ngx_http_kyr_socket,
     NGX_HTTP_MAIN_CONF_OFFSET, 0, NULL},
    {ngx_string("kyr_route"),
     NGX_HTTP_SRV_CONF | NGX_HTTP_LOC_CONF | NGX_HTTP_LIF_CONF | NGX_CONF_FLAG, ngx_http_kyr_route,
     NGX_HTTP_LOC_CONF_OFFSET, offsetof(ngx_http_kyr_loc_conf_t, route), NULL},
    {ngx_string("kyr_user"), NGX_HTTP_SRV_CONF | NGX_HTTP_LOC_CONF | NGX_CONF_TAKE1,
     ngx_http_set_complex_value_slot, NGX_HTTP_LOC_CONF_OFFSET,
     offsetof(ngx_http_kyr_loc_conf_t, user), NULL},
    {ngx_string("kyr_auth_type"), NGX_HTTP_SRV_CONF | NGX_HTTP_LOC_CONF | NGX_CONF_TAKE1,
     ngx_http_set_complex_value_slot, NGX_HTTP_LOC_CONF_OFFSET,
     offsetof(ngx_http_kyr_loc_conf_t, auth_type), NULL},
    {ngx_string("kyr_client_certificate"), NGX_HTTP_SRV_CONF | NGX_HTTP_LOC_CONF | NGX_CONF_TAKE1,
     ngx_http_set_complex_value_slot, NGX_HTTP_LOC_CONF_OFFSET,
     offsetof(ngx_http_kyr_loc_conf_t, client_certificate), NULL},
    {ngx_string("kyr_ssl_map_mode"), NGX_HTTP_SRV_CONF | NGX_HTTP_LOC_CONF | NGX_CONF_TAKE1,
     ngx_conf_set_enum_slot, NGX_HTTP_LOC_CONF_OFFSET,
     offsetof(ngx_http_kyr_loc_conf_t, ssl_map_mode), ngx_http_kyr_ssl_map_modes},
    {ngx_string("kyr_upstream"), NGX_HTTP_UPS_CONF | NGX_CONF_NOARGS, ngx_http_kyr_upstream, 0, 0,
     NULL},
    {ngx_string("kyr_status"), NGX_HTTP_LOC_CONF | NGX_CONF_NOARGS, ngx_http_kyr_status, 0, 0,
     NULL},
    ngx_null_command};

static ngx_http_module_t ngx_http_kyr_module_ctx = {
    ngx_http_kyr_preconfiguration,  /* preconfiguration */
    ngx_http_kyr_postconfiguration, /* postconfiguration */
    ngx_http_kyr_create_main_conf,  /* create main configuration */
    ngx_http_kyr_init_main_conf,    /* init main configuration */
    NULL,                           /* create server configuration */
    NULL,                           /* merge server configuration */
    ngx_http_kyr_create_loc_conf,   /* create location configuration */
    ngx_http_kyr_merge_loc_conf     /* merge location configuration */
};

ngx_module_t ngx_http_kyr_module = {NGX_MODULE_V1,
                                    &ngx_http_kyr_module_ctx,  /* module context */
                                    ngx_http_kyr_commands,     /* module directives */
                                    NGX_HTTP_MODULE,           /* module type */
                                    NULL,                      /* init master */
                                    ngx_http_kyr_init_module,  /* init module */
                                    ngx_http_kyr_init_process, /* init process */
                                    NULL,                      /* init thread */
                                    NULL,                      /* exit thread */
                                    ngx_http_kyr_exit_process, /* exit process */
                                    NULL,                      /* exit master */
                                    NGX_MODULE_V1_PADDING};

static ngx_int_t ngx_http_kyr_preconfiguration(ngx_conf_t *cf) {
  return ngx_http_kyr_add_variables(cf);
}

static void *ngx_http_kyr_create_main_conf(ngx_conf_t *cf) {
  ngx_http_kyr_main_conf_t *kmcf = ngx_pcalloc(cf->pool, sizeof(ngx_http_kyr_main_conf_t));
  if (kmcf == NULL) return NULL;
  kmcf->groups = ngx_array_create(cf->pool, 2, sizeof(ngx_http_kyr_group_conf_t));
  kmcf->properties = ngx_array_create(cf->pool, 2, sizeof(ngx_keyval_t));
  if (kmcf->groups == NULL || kmcf->properties == NULL) return NULL;
  return kmcf;
}

static char *ngx_http_kyr_init_main_conf(ngx_conf_t *cf, void *conf) {
  ngx_http_kyr_main_conf_t *kmcf = conf;
  if (!kmcf->used) return NGX_CONF_OK;
  if (kmcf->catalogue.len == 0) {
    ngx_log_error(NGX_LOG_EMERG, cf->log, 0,
                  "kyr: \"kyr_trace_catalogue\" is required where kyr directives are used");
    return NGX_CONF_ERROR;
  }
  if (kmcf->groups->nelts == 0 && kmcf->document.len == 0) {
    ngx_log_error(NGX_LOG_EMERG, cf->log, 0,
                  "kyr: no routing data: add \"kyr_connector_group\" or "
                  "\"kyr_routing_document\"");
    return NGX_CONF_ERROR;
  }
  if (ngx_http_kyr_check_configuration(kmcf, cf->log) != NGX_OK) return NGX_CONF_ERROR;
  return NGX_CONF_OK;
}

static void *ngx_http_kyr_create_loc_conf(ngx_conf_t *cf) {
  ngx_http_kyr_loc_conf_t *klcf = ngx_pcalloc(cf->pool, sizeof(ngx_http_kyr_loc_conf_t));
  if (klcf == NULL) return NULL;
  klcf->route = NGX_CONF_UNSET;
  klcf->user = NGX_CONF_UNSET_PTR;
  klcf->auth_type = NGX_CONF_UNSET_PTR;
  klcf->client_certificate = NGX_CONF_UNSET_PTR;
  klcf->ssl_map_mode = NGX_CONF_UNSET_UINT;
  return klcf;
}

static char *ngx_http_kyr_merge_loc_conf(ngx_conf_t *cf, void *parent, void *child) {
  ngx_http_kyr_loc_conf_t *prev = parent;
  ngx_http_kyr_loc_conf_t *conf = child;
  ngx_conf_merge_value(conf->route, prev->route, 0);
  ngx_conf_merge_ptr_value(conf->user, prev->user, NULL);
  ngx_conf_merge_ptr_value(conf->auth_type, prev->auth_type, NULL);
  ngx_conf_merge_ptr_value(conf->client_certificate, prev->client_certificate, NULL);
  ngx_conf_merge_uint_value(conf->ssl_map_mode, prev->ssl_map_mode, NGX_CONF_UNSET_UINT);
  return NGX_CONF_OK;
}

static ngx_int_t ngx_http_kyr_postconfiguration(ngx_conf_t *cf) {
  ngx_http_kyr_main_conf_t *kmcf = ngx_http_conf_get_module_main_conf(cf, ngx_http_kyr_module);
  if (!kmcf->used) return NGX_OK;
  /* Routing runs after the access checks and right before the content handler (the proxy),
   * so only requests that may be served are counted against servers. */
  ngx_http_core_main_conf_t *cmcf = ngx_http_conf_get_module_main_conf(cf, ngx_http_core_module);
  ngx_http_handler_pt *h = ngx_array_push(&cmcf->phases[NGX_HTTP_PRECONTENT_PHASE].handlers);
  if (h == NULL) return NGX_ERROR;
  *h = ngx_http_kyr_route_handler;
  return ngx_http_kyr_install_filter(cf);
}

/* The directory of the socket path up to its last '/' (the root for a file in it). */
static void ngx_http_kyr_socket_dir(ngx_http_kyr_main_conf_t *kmcf, u_char *dir, size_t size) {
  const char *path = (const char *)kmcf->socket_path.data;
  const char *slash = strrchr(path, '/');
  size_t len = slash == NULL ? 0 : slash == path ? 1 : (size_t)(slash - path);
  ngx_cpystrn(dir, len > 0 ? (u_char *)path : (u_char *)".",
              ngx_min((len > 0 ? len : 1) + 1, size));
}

/* The master creates a missing socket directory for the workers' user, as it does its temp
 * directories; one that exists is left as it is (it may be /tmp). */
static ngx_int_t ngx_http_kyr_init_module(ngx_cycle_t *cycle) {
  ngx_http_kyr_main_conf_t *kmcf = ngx_http_cycle_get_module_main_conf(cycle, ngx_http_kyr_module);
  if (kmcf == NULL || !kmcf->used || kmcf->socket_path.len == 0) return NGX_OK;
  u_char dir[NGX_MAX_PATH];
  ngx_http_kyr_socket_dir(kmcf, dir, sizeof dir);
  if (mkdir((const char *)dir, 0700) != 0) {
    if (ngx_errno == NGX_EEXIST) return NGX_OK;
    ngx_log_error(NGX_LOG_EMERG, cycle->log, ngx_errno, "kyr: mkdir() \"%s\" for kyr_socket failed",
                  dir);
    return NGX_ERROR;
  }
  ngx_core_conf_t *ccf = (ngx_core_conf_t *)ngx_get_conf(cycle->conf_ctx, ngx_core_module);
  if (geteuid() == 0 && ccf->user != (ngx_uid_t)NGX_CONF_UNSET_UINT &&
      chown((const char *)dir, ccf->user, -1) != 0) {
    ngx_log_error(NGX_LOG_EMERG, cycle->log, ngx_errno, "kyr: chown() \"%s\" for kyr_socket failed",
                  dir);
    return NGX_ERROR;
  }
  return NGX_OK;
}

/* Worker 0 learns the routing data and hands it to the others over the socket. A respawned
 * worker gets its old number, so the role survives a crash and the clients reconnect to it. */
static ngx_int_t ngx_http_kyr_share(Kyr *kyr, ngx_http_kyr_main_conf_t *kmcf, ngx_log_t *log) {
  const char *path = (const char *)kmcf->socket_path.data;
  if (ngx_worker != 0) {
    if (kyrMarkAsClientProcess(kyr, path) == 0) return NGX_OK;
    ngx_log_error(NGX_LOG_EMERG, log, 0, "kyr: worker %ui cannot be a client of \"%s\"", ngx_worker,
                  path);
    return NGX_ERROR;
  }
  /* The library creates the socket when it starts, and a failure there only reaches the log:
   * the directory is checked here, where it can stop the worker with a clear message. */
  u_char dir[NGX_MAX_PATH];
  ngx_http_kyr_socket_dir(kmcf, dir, sizeof dir);
  if (access((const char *)dir, W_OK | X_OK) != 0) {
    ngx_log_error(NGX_LOG_EMERG, log, ngx_errno,
                  "kyr: worker 0 cannot create the socket \"%s\": the worker processes' user "
                  "must be able to write to \"%s\"",
                  path, dir);
    return NGX_ERROR;
  }
  if (kyrMarkAsServerProcess(kyr, path, geteuid()) == 0) return NGX_OK;
  ngx_log_error(NGX_LOG_EMERG, log, 0, "kyr: worker 0 cannot be the server of \"%s\"", path);
  return NGX_ERROR;
}

static ngx_int_t ngx_http_kyr_init_process(ngx_cycle_t *cycle) {
  /* Cache managers and loaders run init_process too; they serve no requests. */
  if (ngx_process != NGX_PROCESS_WORKER && ngx_process != NGX_PROCESS_SINGLE) return NGX_OK;
  ngx_http_kyr_main_conf_t *kmcf = ngx_http_cycle_get_module_main_conf(cycle, ngx_http_kyr_module);
  if (kmcf == NULL || !kmcf->used) return NGX_OK;

  char err[512];
  Kyr *kyr = ngx_http_kyr_create_handle(kmcf, ngx_http_kyr_trace_to_log, err, sizeof err);
  if (kyr == NULL) {
    ngx_log_error(NGX_LOG_EMERG, cycle->log, 0, "kyr: %s", err);
    return NGX_ERROR;
  }
  ngx_core_conf_t *ccf = (ngx_core_conf_t *)ngx_get_conf(cycle->conf_ctx, ngx_core_module);
  if (ngx_process == NGX_PROCESS_WORKER && ccf->worker_processes > 1 && kmcf->socket_path.len > 0 &&
      ngx_http_kyr_share(kyr, kmcf, cycle->log) != NGX_OK) {
    kyrDestroy(kyr);
    return NGX_ERROR;
  }
  if (kyrStart(kyr, -1) != 0) {
    ngx_log_error(NGX_LOG_EMERG, cycle->log, 0, "kyr: the library could not be started");
    kyrDestroy(kyr);
    return NGX_ERROR;
  }
  ngx_log_error(NGX_LOG_INFO, cycle->log, 0, "kyr: %s %s started in worker %ui", kyrGetVersion(),
                kyrIsServerProcess(kyr)   ? "server process"
                : kyrIsClientProcess(kyr) ? "client process"
                                          : "standalone process",
                ngx_worker);
  ngx_http_kyr_handle = kyr;
  return NGX_OK;
}

static void ngx_http_kyr_exit_process(ngx_cycle_t *cycle) {
  (void)cycle;
  if (ngx_http_kyr_handle == NULL) return;
  Kyr *kyr = ngx_http_kyr_handle;
  ngx_http_kyr_handle = NULL;
  kyrDestroy(kyr);
}

/* ---- Directives ------------------------------------------------------------------------- */

static ngx_http_kyr_main_conf_t *ngx_http_kyr_used(void *conf) {
  ngx_http_kyr_main_conf_t *kmcf = conf;
  kmcf->used = 1;
  return kmcf;
}

/* Reads a whole file into a NUL-terminated string of the configuration pool. */
static char *ngx_http_kyr_read_file(ngx_conf_t *cf, ngx_str_t *path, ngx_str_t *text) {
  FILE *fp = fopen((const char *)path->data, "r");
  if (fp == NULL) {
    ngx_conf_log_error(NGX_LOG_EMERG, cf, ngx_errno, "kyr: cannot open \"%V\"", path);
    return NGX_CONF_ERROR;
  }
  size_t size = 0;
  if (fseek(fp, 0, SEEK_END) == 0) {
    long end = ftell(fp);
    if (end > 0) size = (size_t)end;
    rewind(fp);
  }
  text->data = ngx_pnalloc(cf->pool, size + 1);
  if (text->data == NULL) {
    fclose(fp);
    return NGX_CONF_ERROR;
  }
  text->len = fread(text->data, 1, size, fp);
  int failed = ferror(fp);
  fclose(fp);
  if (failed || text->len != size) {
    ngx_conf_log_error(NGX_LOG_EMERG, cf, 0, "kyr: cannot read \"%V\"", path);
    return NGX_CONF_ERROR;
  }
  text->data[text->len] = '\0';
  return NGX_CONF_OK;
}

/* A path argument, made absolute against the configuration prefix. */
static char *ngx_http_kyr_path_arg(ngx_conf_t *cf, ngx_str_t *out) {
  ngx_str_t *value = cf->args->elts;
  *out = value[1];
  if (ngx_conf_full_name(cf->cycle, out, 1) != NGX_OK) return NGX_CONF_ERROR;
  /* ngx_conf_full_name leaves the string NUL-terminated, as the library needs it. */
  return NGX_CONF_OK;
}

static char *ngx_http_kyr_trace_catalogue(ngx_conf_t *cf, ngx_command_t *cmd, void *conf) {
  (void)cmd;
  ngx_http_kyr_main_conf_t *kmcf = ngx_http_kyr_used(conf);
  if (kmcf->catalogue_path.len > 0) return "is duplicate";
  if (ngx_http_kyr_path_arg(cf, &kmcf->catalogue_path) != NGX_CONF_OK) return NGX_CONF_ERROR;
  return ngx_http_kyr_read_file(cf, &kmcf->catalogue_path, &kmcf->catalogue);
}

/* Configuration tokens are NUL-terminated, so the plain slot keeps them usable as C strings. */
static char *ngx_http_kyr_main_str(ngx_conf_t *cf, ngx_command_t *cmd, void *conf) {
  ngx_http_kyr_used(conf);
  return ngx_conf_set_str_slot(cf, cmd, conf);
}

static char *ngx_http_kyr_property(ngx_conf_t *cf, ngx_command_t *cmd, void *conf) {
  (void)cmd;
  ngx_http_kyr_main_conf_t *kmcf = ngx_http_kyr_used(conf);
  ngx_str_t *value = cf->args->elts;
  ngx_keyval_t *kv = ngx_array_push(kmcf->properties);
  if (kv == NULL) return NGX_CONF_ERROR;
  kv->key = value[1];
  kv->value = value[2];
  return NGX_CONF_OK;
}

static ngx_http_kyr_group_conf_t *ngx_http_kyr_find_group(ngx_http_kyr_main_conf_t *kmcf,
                                                          ngx_str_t *name) {
  ngx_http_kyr_group_conf_t *groups = kmcf->groups->elts;
  for (ngx_uint_t i = 0; i < kmcf->groups->nelts; i++) {
    if (groups[i].name.len == name->len &&
        ngx_strncmp(groups[i].name.data, name->data, name->len) == 0) {
      return &groups[i];
    }
  }
  return NULL;
}

static char *ngx_http_kyr_connector_group(ngx_conf_t *cf, ngx_command_t *cmd, void *conf) {
  (void)cmd;
  ngx_http_kyr_main_conf_t *kmcf = ngx_http_kyr_used(conf);
  ngx_str_t *value = cf->args->elts;
  if (ngx_http_kyr_find_group(kmcf, &value[1]) != NULL ||
      ngx_strcmp(value[1].data, NGX_HTTP_KYR_DOCUMENT_GROUP) == 0) {
    ngx_conf_log_error(NGX_LOG_EMERG, cf, 0, "kyr: connector group \"%V\" is declared twice",
                       &value[1]);
    return NGX_CONF_ERROR;
  }
  ngx_http_kyr_group_conf_t *group = ngx_array_push(kmcf->groups);
  if (group == NULL) return NGX_CONF_ERROR;
  group->name = value[1];
  if (ngx_array_init(&group->urls, cf->pool, cf->args->nelts - 2, sizeof(ngx_str_t)) != NGX_OK ||
      ngx_array_init(&group->properties, cf->pool, 2, sizeof(ngx_keyval_t)) != NGX_OK) {
    return NGX_CONF_ERROR;
  }
  for (ngx_uint_t i = 2; i < cf->args->nelts; i++) {
    if (ngx_strncmp(value[i].data, "http://", 7) != 0) {
      ngx_conf_log_error(NGX_LOG_EMERG, cf, 0,
                         "kyr: publisher \"%V\" of connector group \"%V\" is not an http:// URL",
                         &value[i], &value[1]);
      return NGX_CONF_ERROR;
    }
    ngx_str_t *url = ngx_array_push(&group->urls);
    if (url == NULL) return NGX_CONF_ERROR;
    *url = value[i];
  }
  return NGX_CONF_OK;
}

static char *ngx_http_kyr_group_property(ngx_conf_t *cf, ngx_command_t *cmd, void *conf) {
  (void)cmd;
  ngx_http_kyr_main_conf_t *kmcf = ngx_http_kyr_used(conf);
  ngx_str_t *value = cf->args->elts;
  ngx_http_kyr_group_conf_t *group = ngx_http_kyr_find_group(kmcf, &value[1]);
  if (group == NULL) {
    ngx_conf_log_error(NGX_LOG_EMERG, cf, 0,
                       "kyr: no connector group \"%V\" is declared before this line", &value[1]);
    return NGX_CONF_ERROR;
  }
  ngx_keyval_t *kv = ngx_array_push(&group->properties);
  if (kv == NULL) return NGX_CONF_ERROR;
  kv->key = value[2];
  kv->value = value[3];
  return NGX_CONF_OK;
}

static char *ngx_http_kyr_routing_document(ngx_conf_t *cf, ngx_command_t *cmd, void *conf) {
  (void)cmd;
  ngx_http_kyr_main_conf_t *kmcf = ngx_http_kyr_used(conf);
  if (kmcf->document_path.len > 0) return "is duplicate";
  if (ngx_http_kyr_path_arg(cf, &kmcf->document_path) != NGX_CONF_OK ||
      ngx_http_kyr_read_file(cf, &kmcf->document_path, &kmcf->document) != NGX_CONF_OK) {
    return NGX_CONF_ERROR;
  }
  /* The library skips what it cannot read; a document that is not JSON at all is a mistake
   * worth stopping for, with the place the parser gave up. */
  json_error_t error;
  json_t *doc = json_loadb((const char *)kmcf->document.data, kmcf->document.len, 0, &error);
  if (doc == NULL) {
    ngx_conf_log_error(NGX_LOG_EMERG, cf, 0, "kyr: \"%V\" is not JSON: %s (line %d, column %d)",
                       &kmcf->document_path, error.text, error.line, error.column);
    return NGX_CONF_ERROR;
  }
  int isObject = json_is_object(doc);
  json_decref(doc);
  if (!isObject) {
    ngx_conf_log_error(NGX_LOG_EMERG, cf, 0,
                       "kyr: \"%V\" is not a routing document (a JSON object)",
                       &kmcf->document_path);
    return NGX_CONF_ERROR;
  }
  return NGX_CONF_OK;
}

static char *ngx_http_kyr_socket(ngx_conf_t *cf, ngx_command_t *cmd, void *conf) {
  (void)cmd;
  ngx_http_kyr_main_conf_t *kmcf = ngx_http_kyr_used(conf);
  if (kmcf->socket_path.len > 0) return "is duplicate";
  if (ngx_http_kyr_path_arg(cf, &kmcf->socket_path) != NGX_CONF_OK) return NGX_CONF_ERROR;
  struct sockaddr_un probe;
  if (kmcf->socket_path.len >= sizeof probe.sun_path) {
    ngx_conf_log_error(NGX_LOG_EMERG, cf, 0, "kyr: socket path \"%V\" is longer than %uz bytes",
                       &kmcf->socket_path, sizeof probe.sun_path - 1);
    return NGX_CONF_ERROR;
  }
  return NGX_CONF_OK;
}

static char *ngx_http_kyr_route(ngx_conf_t *cf, ngx_command_t *cmd, void *conf) {
  char *rv = ngx_conf_set_flag_slot(cf, cmd, conf);
  if (rv != NGX_CONF_OK) return rv;
  ngx_http_kyr_loc_conf_t *klcf = conf;
  if (klcf->route) ngx_http_kyr_used(ngx_http_conf_get_module_main_conf(cf, ngx_http_kyr_module));
  return NGX_CONF_OK;
}
