/*
 * The library handle as the module configures it: callbacks, trace catalogue, properties,
 * connector groups and the routing document. Workers build their handle here, and so does the
 * configuration check, in a child process of its own: the library starts threads, and a master
 * that forks workers must not have any.
 */
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ngx_http_kyr_module.h"

/* How long the configuration check may take before it counts as failed. */
#define NGX_HTTP_KYR_CHECK_TIMEOUT_MS 30000

static void ngx_http_kyr_error(char *err, size_t errlen, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vsnprintf(err, errlen, fmt, args);
  va_end(args);
}

static Kyr *ngx_http_kyr_new_handle(ngx_http_kyr_main_conf_t *kmcf, EnvCallBacks *env) {
  /* The catalogue text was read by the master; the library reads it from a stream. */
  FILE *fp = fmemopen(kmcf->catalogue.data, kmcf->catalogue.len, "r");
  if (fp == NULL) return NULL;
  Kyr *kyr = kyrCreate(env, fp, NULL);
  fclose(fp);
  return kyr;
}

/* A handle made without connector callbacks gets the library's own transport, and its table
 * shows it: the module keeps that transport for the publishers and answers for the routing
 * document itself. */
static int ngx_http_kyr_builtin_transport(ngx_http_kyr_main_conf_t *kmcf, TrPrintf trace,
                                          EnvCallBacks *builtin) {
  EnvCallBacks env;
  ngx_http_kyr_set_callbacks(&env, trace);
  Kyr *probe = ngx_http_kyr_new_handle(kmcf, &env);
  if (probe == NULL) return -1;
  *builtin = *kyrGetEnvCallBacks(probe);
  kyrDestroy(probe);
  return 0;
}

/* Names the library keeps although they are outside its property table (see kyrlib.h). */
static int ngx_http_kyr_affinity_default(const char *name) {
  static const char *const names[] = {"HttpSessionAffinityPolicyDescriptor",
                                      "TarnwickSessionCookieName", "HttpSessionCookies"};
  for (size_t i = 0; i < sizeof names / sizeof names[0]; i++) {
    if (strcasecmp(name, names[i]) == 0) return 1;
  }
  return 0;
}

static int ngx_http_kyr_configure_groups(Kyr *kyr, ngx_http_kyr_main_conf_t *kmcf, char *err,
                                         size_t errlen) {
  ngx_http_kyr_group_conf_t *groups = kmcf->groups->elts;
  for (ngx_uint_t i = 0; i < kmcf->groups->nelts; i++) {
    const char *name = (const char *)groups[i].name.data;
    KyrConnectorGroup *cg = kyrConnectorGroupCreate(kyr, name);
    if (cg == NULL) {
      ngx_http_kyr_error(err, errlen, "connector group \"%s\" could not be created", name);
      return -1;
    }
    ngx_keyval_t *props = groups[i].properties.elts;
    for (ngx_uint_t p = 0; p < groups[i].properties.nelts; p++) {
      const char *key = (const char *)props[p].key.data;
      const char *value = (const char *)props[p].value.data;
      if (!kyrConnectorGroupSetProperty(cg, key, value)) {
        ngx_http_kyr_error(err, errlen,
                           "kyr_group_property %s %s \"%s\": the connector group takes no such "
                           "property or no such value",
                           name, key, value);
        return -1;
      }
    }
    ngx_str_t *urls = groups[i].urls.elts;
    for (ngx_uint_t u = 0; u < groups[i].urls.nelts; u++) {
      if (kyrConnectorCreate(cg, (const char *)urls[u].data) == NULL) {
        ngx_http_kyr_error(err, errlen, "publisher \"%s\" of connector group \"%s\" is refused",
                           urls[u].data, name);
        return -1;
      }
    }
  }
  return 0;
}

/* The document is applied at once, so the first request already routes, and is then served to
 * its connector like a publisher's answer: the group runs as any other, and a server process
 * hands the document to its clients with the rest of the routing data. */
static int ngx_http_kyr_configure_document(Kyr *kyr, ngx_http_kyr_main_conf_t *kmcf, char *err,
                                           size_t errlen) {
  char url[NGX_MAX_PATH + sizeof("file://")];
  snprintf(url, sizeof url, "file://%s", kmcf->document_path.data);
  KyrConnectorGroup *cg = kyrConnectorGroupCreate(kyr, NGX_HTTP_KYR_DOCUMENT_GROUP);
  KyrConnector *connector = kyrConnectorCreate(cg, url);
  if (connector == NULL) {
    ngx_http_kyr_error(err, errlen, "the routing document's connector could not be created");
    return -1;
  }
  ngx_http_kyr_static_serve(connector, (const char *)kmcf->document.data);
  kyrControlLock("ngx_http_kyr_configure_document");
  kyrHandleJsonFromRestService((const char *)kmcf->document.data, connector);
  kyrControlUnlock();
  return 0;
}

Kyr *ngx_http_kyr_create_handle(ngx_http_kyr_main_conf_t *kmcf, TrPrintf trace, char *err,
                                size_t errlen) {
  EnvCallBacks env;
  ngx_http_kyr_set_callbacks(&env, trace);
  if (kmcf->document.len > 0) {
    EnvCallBacks builtin;
    if (ngx_http_kyr_builtin_transport(kmcf, trace, &builtin) != 0) {
      ngx_http_kyr_error(err, errlen, "the library refused the trace catalogue \"%s\"",
                         kmcf->catalogue_path.data);
      return NULL;
    }
    ngx_http_kyr_static_transport(&env, &builtin);
  }
  Kyr *kyr = ngx_http_kyr_new_handle(kmcf, &env);
  if (kyr == NULL) {
    ngx_http_kyr_error(err, errlen, "the library refused the trace catalogue \"%s\"",
                       kmcf->catalogue_path.data);
    return NULL;
  }
  if (kmcf->server_name.len > 0) kyrSetServerName(kyr, (const char *)kmcf->server_name.data);
  if (kmcf->trace_spec.len > 0 &&
      kyrSetDefaultTraceSpec(kyr, (const char *)kmcf->trace_spec.data) != 0) {
    ngx_http_kyr_error(err, errlen, "kyr_trace_spec \"%s\" is not a trace specification",
                       kmcf->trace_spec.data);
    goto failed;
  }
  ngx_keyval_t *props = kmcf->properties->elts;
  for (ngx_uint_t i = 0; i < kmcf->properties->nelts; i++) {
    const char *name = (const char *)props[i].key.data;
    if (!kyrSetServerCustomProperty(kyr, name, (const char *)props[i].value.data) &&
        !ngx_http_kyr_affinity_default(name)) {
      ngx_http_kyr_error(err, errlen, "kyr_property %s: no such property, or a refused value",
                         name);
      goto failed;
    }
  }
  /* The rollout wait sleeps, and a worker must never sleep. Set at the web-server level, so
   * that no value in the routing data brings it back. */
  kyrSetServerCustomProperty(kyr, "MaxSecondsToWaitDuringAtomicRollout", "0");
  if (ngx_http_kyr_configure_groups(kyr, kmcf, err, errlen) != 0) goto failed;
  if (kmcf->document.len > 0 && ngx_http_kyr_configure_document(kyr, kmcf, err, errlen) != 0) {
    goto failed;
  }
  return kyr;

failed:
  kyrDestroy(kyr);
  return NULL;
}

static void ngx_http_kyr_trace_discard(TrContext *context, va_list args) {
  (void)context;
  (void)args;
}

/* How the child says that it wrote why the configuration is refused. The library ends the
 * process itself on a catalogue it cannot read, with other statuses. */
#define NGX_HTTP_KYR_CHECK_REFUSED 3

/* The child: builds the handle as a worker would. The library writes its diagnostics to
 * standard output and standard error; both go to the pipe. */
static void ngx_http_kyr_check_child(ngx_http_kyr_main_conf_t *kmcf, int out) {
  dup2(out, STDOUT_FILENO);
  dup2(out, STDERR_FILENO);
  char err[512];
  Kyr *kyr = ngx_http_kyr_create_handle(kmcf, ngx_http_kyr_trace_discard, err, sizeof err);
  if (kyr == NULL) {
    fflush(NULL);
    dprintf(STDERR_FILENO, "%s\n", err);
    _exit(NGX_HTTP_KYR_CHECK_REFUSED);
  }
  kyrDestroy(kyr);
  fflush(NULL);
  _exit(0);
}

/* Reads what the child writes until it closes the pipe or the time is up. */
static size_t ngx_http_kyr_read_child(int in, char *buf, size_t size) {
  size_t len = 0;
  ngx_msec_t deadline = ngx_current_msec + NGX_HTTP_KYR_CHECK_TIMEOUT_MS;
  for (;;) {
    ngx_time_update();
    if (ngx_current_msec >= deadline) return (size_t)-1;
    struct pollfd pfd = {.fd = in, .events = POLLIN};
    int n = poll(&pfd, 1, (int)(deadline - ngx_current_msec));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return (size_t)-1;
    char scratch[256];
    char *to = len + 1 < size ? buf + len : scratch;
    size_t room = len + 1 < size ? size - 1 - len : sizeof scratch;
    ssize_t got = read(in, to, room);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    if (to == buf + len) len += (size_t)got;
  }
  buf[len] = '\0';
  return len;
}

ngx_int_t ngx_http_kyr_check_configuration(ngx_http_kyr_main_conf_t *kmcf, ngx_log_t *log) {
  int fds[2];
  if (pipe(fds) != 0) {
    ngx_log_error(NGX_LOG_EMERG, log, ngx_errno, "kyr: pipe() for the configuration check failed");
    return NGX_ERROR;
  }
  pid_t pid = fork();
  if (pid == -1) {
    ngx_log_error(NGX_LOG_EMERG, log, ngx_errno, "kyr: fork() for the configuration check failed");
    close(fds[0]);
    close(fds[1]);
    return NGX_ERROR;
  }
  if (pid == 0) {
    close(fds[0]);
    ngx_http_kyr_check_child(kmcf, fds[1]);
  }
  close(fds[1]);
  char text[2048];
  size_t len = ngx_http_kyr_read_child(fds[0], text, sizeof text);
  close(fds[0]);
  if (len == (size_t)-1) kill(pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
  }
  if (len != (size_t)-1 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return NGX_OK;
  if (len == (size_t)-1) {
    ngx_log_error(NGX_LOG_EMERG, log, 0, "kyr: the configuration check did not end within %d s",
                  NGX_HTTP_KYR_CHECK_TIMEOUT_MS / 1000);
    return NGX_ERROR;
  }
  /* One log line per line the library or the check wrote. */
  int logged = 0;
  for (char *line = strtok(text, "\n"); line != NULL; line = strtok(NULL, "\n")) {
    ngx_log_error(NGX_LOG_EMERG, log, 0, "kyr: %s", line);
    logged = 1;
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != NGX_HTTP_KYR_CHECK_REFUSED || !logged) {
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    ngx_log_error(NGX_LOG_EMERG, log, 0,
                  "kyr: the library ended the configuration check (exit code %d): is \"%V\" a "
                  "trace catalogue?",
                  code, &kmcf->catalogue_path);
  }
  return NGX_ERROR;
}
