/*
 * kyrlib: the request-routing library's public interface for web-server plug-ins (hosts).
 *
 * Conventions:
 *  1. Handles (Kyr, KyrHttpContext, KyrConnectorGroup, KyrConnector, KyrTargetEndpoint, ...)
 *     are opaque; the library creates and frees them.
 *  2. The host hands the library one EnvCallBacks table; it is copied, so the host's copy may
 *     go away after the create call. `version` must be KYR_ENV_CALLBACKS_VERSION.
 *  3. Strings passed in are copied. Strings returned are the library's unless a call says so.
 *  4. Failure is reported as NULL or as a negative status.
 *  5. EnvHttpContext, EnvConnectorClient, EnvTargetEndpoint and EnvAtomicCounter are the host's
 *     own types: the library only passes them back.
 *  6. Required callbacks (kyrCreate refuses a table without them): http.request.getProtocol,
 *     getVirtualHost, getVirtualPort, getPath, getClientIpAddr, getListeningPort,
 *     getProtocolVersion, getClientCertificate, getSSLCipherSuite, getSSLSessionId, getAuthType,
 *     getUserName, setHeaderValue and getCookieValue. Every other member may be NULL: the
 *     http.connector members and alarm_ex then get built-in defaults, and otherwise the library
 *     skips what needs the missing one (without http.response.setCookieValue cookies go out as
 *     "Set-Cookie" through http.response.setHeaderValue; without both, not at all).
 *  7. Pointer arguments must not be NULL, except: a NULL handle, group, connector or endpoint is
 *     answered with NULL, -1, false or INVALID by kyrStart, kyrStop, kyrDestroy, kyrGetState,
 *     kyrToJSON and its text forms, the connector-group, connector and target-endpoint calls,
 *     kyrHttpContextObtain and kyrHttpContextRelease; a NULL document gives -1; a NULL value
 *     clears a setting or restores its default; kyrSetTraceSpecification says its own.
 *  8. Request-context calls may run on many threads at once, one thread per context. The
 *     host holds kyrControlLock around kyrHandleJson, kyrHandleJsonFromRestService and
 *     kyrCheckState, and never while calling kyrStart, kyrStop, kyrDestroy, kyrToJSON (and its
 *     text forms) or the create, start, stop and delete calls of connector groups and
 *     connectors, which take it themselves (it is not recursive). Property and server-name
 *     setters take no lock: call them from one thread at a time, preferably before kyrStart.
 *  9. Callbacks run on the host's threads and on the library's own, and may run while the
 *     library holds its locks (the control lock around stateChange, for example): a callback
 *     must not call back into the library.
 * 10. No C++ exception ever leaves a call: the library is built without exceptions, and an
 *     allocation that fails ends the process.
 */
#ifndef KYRLIB_KYRLIB_H
#define KYRLIB_KYRLIB_H

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include "tr.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KYR_ENV_CALLBACKS_VERSION 19358

typedef struct _Kyr Kyr;
typedef struct KyrHttpContext KyrHttpContext;
typedef struct KyrConnectorGroup KyrConnectorGroup;
typedef struct KyrConnector KyrConnector;
typedef struct KyrTargetEndpoint KyrTargetEndpoint;
typedef struct KyrHttpResponseContext KyrHttpResponseContext;
typedef struct KyrMemory KyrMemory;

typedef struct EnvHttpContext EnvHttpContext;
typedef struct EnvConnectorClient EnvConnectorClient;
typedef struct EnvTargetEndpoint EnvTargetEndpoint;
typedef struct EnvAtomicCounter EnvAtomicCounter;

typedef int Boolean;

/* `delete` is a member name of the table, but a C++ keyword: C++ code sees the same slot as
 * `delete_`, so the layout is identical in both languages. */
#ifdef __cplusplus
#define KYR_DELETE_MEMBER delete_
#else
#define KYR_DELETE_MEMBER delete
#endif

typedef enum {
  INVALID = -1,
  STARTING = 0,
  STARTED = 1,
  PARTIAL_START = 2,
  FAILED = 3,
  STOPPING = 4,
  STOPPED = 5,
  DELETED = 6
} KyrComponentState;

typedef enum {
  MapInboundToOutbound = 0,
  SSLOffLoad = 1,
  SSLOnLoad = 2,
  NullMapMode = 3
} KyrSSLMapMode;

typedef enum {
  KYR_STANDALONE_PROCESS = 0,
  KYR_SERVER_PROCESS = 1,
  KYR_CLIENT_PROCESS = 2
} KyrProcessType;

typedef enum { NONE = 0, SUSPEND = 1, REJECT = 2, REDIRECT = 3, PERMIT = 4 } KyrAction;

typedef enum {
  KYRSERVERTYPE_UNKNOWN = 0,
  KYRSERVERTYPE_NODE_AGENT = 1,
  KYRSERVERTYPE_DEPLOYMENT_MANAGER = 2,
  KYRSERVERTYPE_WEB_SERVER = 3,
  KYRSERVERTYPE_APPLICATION_SERVER = 4,
  KYRSERVERTYPE_BRAMBLE_SERVER = 5
} KyrServerType;

typedef enum {
  INITIAL = 0,
  OBTAINED = 1,
  REQUEST_ARRIVED = 2,
  KYR_REQUEST_PROCESSING = 3,
  WEB_MODULE_SELECTED = 4,
  REQUEST_SUSPENDED = 5,
  REQUEST_CANCELED = 6,
  TARGET_SELECTED = 7,
  CONNECT_SUCCESS = 8,
  CONNECT_FAILURE = 9,
  REQUEST_SENDING = 10,
  REQUEST_SENT = 11,
  REQUEST_SEND_ERROR = 12,
  RESPONSE_ARRIVED = 13,
  RESPONSE_TIMEOUT = 14,
  RESPONSE_READ_ERROR = 15,
  RESPONSE_PROCESSING = 16,
  RESPONSE_PROCESSED = 17,
  RESPONSE_SENDING = 18,
  RESPONSE_SENT = 19,
  RESPONSE_SEND_ERROR = 20,
  CACHED = 21,
  FREE = 22
} KyrHttpContextState;

typedef struct {
  char* name;
  char* value;
} KyrNameValue;

/* A publisher's answer to one REST request. */
typedef struct {
  int responseCode;
  int numHeaders;
  KyrNameValue* headers;
  char* body;
  void* userdata;
  int timed_out;
  int aborted;
} KyrHttpResponse;

typedef void (*KyrHttpResponseCallBack)(KyrHttpResponse* response,
                                        KyrHttpResponseContext* passback);

/* The host's callback table. The members of convention 6 must be set; kyrCreate fills the
 * connector members and alarm_ex with built-in defaults when NULL. */
typedef struct {
  int version;
  struct {
    struct {
      EnvConnectorClient* (*open)(KyrConnector* connector);
      int (*sendRequest)(EnvConnectorClient* client, const char* method, const char* uri,
                         const char* body, int timeoutInSecs, KyrHttpResponseCallBack callback,
                         KyrHttpResponseContext* passback);
      void (*freeResponse)(KyrHttpResponse* response);
      void (*close)(EnvConnectorClient* client);
    } connector;
    struct {
      char* (*getClientIpAddr)(EnvHttpContext* ctx);
      char* (*getClientHostName)(EnvHttpContext* ctx);
      char* (*getProtocolVersion)(EnvHttpContext* ctx);
      int (*getListeningPort)(EnvHttpContext* ctx);
      char* (*getVirtualHost)(EnvHttpContext* ctx);
      char* (*getLocalAddress)(EnvHttpContext* ctx);
      int (*getVirtualPort)(EnvHttpContext* ctx);
      char* (*getProtocol)(EnvHttpContext* ctx);
      char* (*getMethod)(EnvHttpContext* ctx);
      char* (*getPath)(EnvHttpContext* ctx);
      char* (*getQueryString)(EnvHttpContext* ctx);
      char* (*getAuthType)(EnvHttpContext* ctx);
      char* (*getUserName)(EnvHttpContext* ctx);
      char** (*getGroupNames)(EnvHttpContext* ctx);
      char* (*getClientCertificate)(EnvHttpContext* ctx);
      char* (*getSSLCipherSuite)(EnvHttpContext* ctx);
      char* (*getSSLSessionId)(EnvHttpContext* ctx);
      char* (*getHeaderValue)(EnvHttpContext* ctx, char* name);
      int (*setHeaderValue)(EnvHttpContext* ctx, char* name, char* value);
      char** (*getHeaderValues)(EnvHttpContext* ctx, char* name);
      char* (*getCookieValue)(EnvHttpContext* ctx, char* name);
      int (*resume)(EnvHttpContext* ctx);
    } request;
    struct {
      int (*getResponseCode)(EnvHttpContext* ctx);
      char* (*getHeaderValue)(EnvHttpContext* ctx, char* name);
      char** (*getHeaderValues)(EnvHttpContext* ctx, char* name);
      int (*setHeaderValue)(EnvHttpContext* ctx, char* name, char* value);
      char* (*getCookieValue)(EnvHttpContext* ctx, char* name);
      int (*setCookieValue)(EnvHttpContext* ctx, char* name, char* value);
    } response;
  } http;
  struct {
    EnvTargetEndpoint* (*create)(KyrTargetEndpoint* endpoint);
    int (*KYR_DELETE_MEMBER)(EnvTargetEndpoint* endpoint);
  } targetEndpoint;
  struct {
    int (*getValue)(char* key, KyrMemory* memory);
    int (*setValue)(char* key, KyrMemory* memory);
  } storage;
  struct {
    EnvAtomicCounter* (*create)(char* name);
    int (*KYR_DELETE_MEMBER)(EnvAtomicCounter* counter);
    int (*getSize)(void);
    EnvAtomicCounter* (*init)(char* name, void* memory);
    int (*clean)(EnvAtomicCounter* counter);
    int (*increment)(EnvAtomicCounter* counter, unsigned int* newValue);
    int (*decrement)(EnvAtomicCounter* counter, unsigned int* newValue);
  } counter;
  struct {
    void (*kyr)(Kyr* kyr, KyrComponentState state, char* reason);
    void (*kyrConnectorGroup)(KyrConnectorGroup* group, KyrComponentState state, char* reason);
    void (*kyrConnector)(KyrConnector* connector, KyrComponentState state, char* reason);
  } stateChange;
  int (*alarm)(void (*function)(void*), void* arg, int milliseconds);
  int (*alarm_ex)(void (*function)(void*), void* arg, int milliseconds, void* env);
  void (*threadInit)(void);
  struct {
    TrPrintf printf;
  } trace;
} EnvCallBacks;

/* "KYRLIB<release>.KYRLIB_<label>.<build>": the library's build level. */
KYR_EXPORT const char* kyrGetVersion(void);

/* ---- Library handle: lifecycle ------------------------------------------------------------
 * kyrCreate copies env, reads the trace catalogue from fp (or opens path when fp is NULL) and
 * returns a STOPPED handle, or NULL with a message on standard error. */
KYR_EXPORT Kyr* kyrCreate(EnvCallBacks* env, FILE* fp, const char* path);
/* 0 when the handle was startable (STOPPED or FAILED), -1 otherwise. timeoutInSecs: -1 returns
 * at once, 0 waits until the start completes, N > 0 waits at most N-1 seconds. */
KYR_EXPORT int kyrStart(Kyr* kyr, int timeoutInSecs);
KYR_EXPORT int kyrStop(Kyr* kyr);
/* Stops the handle and drops the creator's reference; memory goes with the last reference.
 * Publisher requests in flight are aborted and their answers handled before it returns (it
 * waits at most two seconds for a host transport). A retry alarm that is pending (a group that
 * failed) still fires later and then only lets go of its references: keep trace.printf and
 * threadInit valid for the life of the process. For the same reason the shared library is
 * never unloaded, even by a host that dlcloses it (its threads may outlive every handle). */
KYR_EXPORT void kyrDestroy(Kyr* kyr);
KYR_EXPORT void kyrObtainRef(Kyr* kyr, const char* reason);
KYR_EXPORT void kyrReleaseRef(Kyr* kyr, const char* reason);
KYR_EXPORT void kyrCheckState(Kyr* kyr);
KYR_EXPORT KyrComponentState kyrGetState(Kyr* kyr);
KYR_EXPORT Boolean kyrIsStopped(Kyr* kyr);
KYR_EXPORT Boolean kyrIsUsable(Kyr* kyr);
/* The process-wide lock that serialises start, stop, destroy and routing-data application. */
KYR_EXPORT void kyrControlLock(const char* whoIsLocking);
KYR_EXPORT void kyrControlUnlock(void);

/* ---- Library handle: properties and trace ------------------------------------------------- */
/* A web-server-level custom property (an optional "cp.vq." prefix is dropped); it wins over the
 * cell-level value, and clearing it (value NULL) restores the cell value. True for a known name. */
KYR_EXPORT Boolean kyrSetServerCustomProperty(Kyr* kyr, const char* name, const char* value);
/* Applies one property and keeps a copy of its value under its name, where the parts that read
 * properties find it; names outside the library's own table are kept too (the affinity defaults
 * "HttpSessionAffinityPolicyDescriptor", "TarnwickSessionCookieName", "HttpSessionCookies").
 * Returns the canonical name of a name in the table, or NULL for another name or a refused
 * value (which keeps the previous one). */
KYR_EXPORT const char* kyrSetProperty(Kyr* kyr, const char* name, const char* value);
KYR_EXPORT void kyrSetServerName(Kyr* kyr, const char* name);
KYR_EXPORT void kyrSetPPID(Kyr* kyr, const char* ppid);
KYR_EXPORT int kyrSetDefaultTraceSpec(Kyr* kyr, const char* traceSpec);
/* -1 kyr NULL, -2 name NULL, -3 spec NULL, -4 spec invalid, 0 done. The name "default" sets
 * the default specification; any other name adds a request-trace rule with the condition, or
 * gives -5 while the handle has no request-trace rule set. */
KYR_EXPORT int kyrSetTraceSpecification(Kyr* kyr, const char* name, const char* traceSpecStr,
                                        const char* condition);
/* The default specification, as a new reference the caller releases with trSpecRefRelease. */
KYR_EXPORT TrSpec* kyrGetTrSpec(Kyr* kyr);
KYR_EXPORT void kyrSpecLockObtain(Kyr* kyr, const char* who);
KYR_EXPORT void kyrSpecLockRelease(Kyr* kyr);
/* A new reference the caller releases with trSpecRefRelease; NULL when none is set. */
KYR_EXPORT TrSpec* kyrGetCustomPropDefaultRequestTraceSpec(Kyr* kyr);
KYR_EXPORT int ruleNameToSortOrder(const char* name);
/* Accepted and deliberately ignored: every proxy is trusted. */
KYR_EXPORT void kyrSetTrustedProxies(Kyr* kyr, const char* proxies);
KYR_EXPORT Boolean kyrIsTrustedProxy(Kyr* kyr, const char* ipAddr);

/* ---- Library handle: process types -------------------------------------------------------- */
KYR_EXPORT Boolean kyrIsServerProcess(Kyr* kyr);
KYR_EXPORT Boolean kyrIsClientProcess(Kyr* kyr);
KYR_EXPORT Boolean kyrIsStandaloneProcess(Kyr* kyr);
KYR_EXPORT const char* kyrGetProcessTypeName(KyrProcessType type);
/* "STARTING" .. "STOPPED", "PARTIAL START"; "UNKNOWN" for anything else, DELETED included. */
KYR_EXPORT const char* kyrState2String(KyrComponentState state);

/* ---- Connector groups ----------------------------------------------------------------------
 * A group is created STOPPED and added to the handle, which starts and stops it with itself.
 * A started group posts its interest specification to its current connector's publisher, then
 * long-polls it for deltas; a failing publisher moves it to the next connector, and after a
 * full round of failures it is FAILED and retries after "retryInterval" seconds through the
 * host's alarm (else alarm_ex).
 *
 * Host connector callbacks (http.connector): sendRequest must return before it calls the
 * callback (the library holds the control lock while it sends), and it calls the callback
 * exactly once for every request it accepted (returned 0), from another thread, also after
 * close (then with a NULL response): the request holds references that only its answer drops. */
KYR_EXPORT KyrConnectorGroup* kyrConnectorGroupCreate(Kyr* kyr, const char* name);
KYR_EXPORT const char* kyrConnectorGroupGetName(KyrConnectorGroup* cg);
KYR_EXPORT KyrComponentState kyrConnectorGroupGetState(KyrConnectorGroup* cg);
/* Names, in any case: "maxRetries", "retryInterval" (seconds to wait after every connector
 * failed; 60), "uri" (the REST path; "/brisvane"), "maxWaitOffset" (seconds added to the wait
 * for the local receive time-out; 5), "enableRoutingToAdminConsole" ("true" counts deployment
 * managers as cluster members), "waitTime" (seconds a long poll may wait at the publisher;
 * 300). True when the name is known; numbers that are not numbers are refused. */
KYR_EXPORT Boolean kyrConnectorGroupSetProperty(KyrConnectorGroup* cg, const char* name,
                                                const char* value);
/* The REST path; the query naming the group and this web server is added to it. */
KYR_EXPORT void kyrConnectorGroupSetURI(KyrConnectorGroup* cg, const char* uri);
/* Replaces the interest specification the group sends (NULL: the library's own). */
KYR_EXPORT void kyrConnectorGroupSetInterestSpec(KyrConnectorGroup* cg, const char* spec);
KYR_EXPORT const char* kyrConnectorGroupGetInterestSpec(KyrConnectorGroup* cg);
KYR_EXPORT Boolean kyrConnectorGroupGetEnableAdminTraffic(KyrConnectorGroup* cg);
/* Under the control lock: kyrConnectorGroupStart refuses (-1) unless STOPPED or FAILED. */
KYR_EXPORT int kyrConnectorGroupStart(KyrConnectorGroup* cg);
KYR_EXPORT int kyrConnectorGroupStop(KyrConnectorGroup* cg);
/* Removes the group from its handle and drops the handle's reference to it. */
KYR_EXPORT void kyrConnectorGroupDelete(KyrConnectorGroup* cg);

/* ---- Connectors: one publisher URL of a group, tried in the order added ------------------ */
KYR_EXPORT KyrConnector* kyrConnectorCreate(KyrConnectorGroup* cg, const char* url);
KYR_EXPORT const char* kyrConnectorGetURL(KyrConnector* connector);
KYR_EXPORT KyrConnectorGroup* kyrConnectorGetConnectorGroup(KyrConnector* connector);
KYR_EXPORT KyrComponentState kyrConnectorGetState(KyrConnector* connector);
/* Removes the connector from its group and drops the group's reference to it. */
KYR_EXPORT void kyrConnectorDelete(KyrConnector* connector);

/* ---- Several worker processes ------------------------------------------------------------
 * One worker (the server process) runs the connector groups and hands the routing data to the
 * others (client processes) over a unix-domain socket. Mark the process before kyrStart; a
 * client process needs the same connector groups (by name) as the server process. */
KYR_EXPORT int kyrMarkAsServerProcess(Kyr* kyr, const char* unixDomainSocketPath,
                                      uid_t unixDomainSocketUid);
KYR_EXPORT int kyrMarkAsClientProcess(Kyr* kyr, const char* unixDomainSocketPath);

/* The frame on the socket: a header of three ints in the machine's byte order, then len bytes
 * of body (a text with its terminating zero, or a binary record). */
typedef enum {
  MT_CONNECTED = 0,
  MT_S2C_BEGIN_ROUTING_INFO = 1,
  MT_S2C_ROUTING_INFO = 2,
  MT_S2C_END_ROUTING_INFO = 3,
  MT_S2C_ROUTING_INFO_DELTA = 4,
  MT_C2S_JSON = 5,
  MT_S2C_SET_CONTROL_STATE = 6,
  MT_CLIENT_TO_SERVER_HEALTH_TRIGGER = 7
} KyrMessageType;

typedef struct {
  int32_t type; /* KyrMessageType */
  int32_t pid;  /* the sender's process id, stamped by the send */
  int32_t len;  /* body length */
} KyrMessageHdr;

typedef struct {
  KyrMessageHdr hdr;
  char* body; /* NULL when len is 0 */
} KyrMessage;

typedef struct KyrServerProcess KyrServerProcess;
typedef struct KyrClientProcess KyrClientProcess;

/* The process objects kyrMarkAs* create and kyrStart/kyrStop drive; hosts rarely need them. */
KYR_EXPORT KyrServerProcess* kyrGetServerProcess(Kyr* kyr);
KYR_EXPORT int kyrServerProcessSendMessage(KyrServerProcess* proc, KyrMessage* msg, int fd);
KYR_EXPORT int kyrServerProcessBroadcastMessage(KyrServerProcess* proc, KyrMessage* msg);
KYR_EXPORT int kyrServerProcessGetClientCount(KyrServerProcess* proc);
KYR_EXPORT int kyrClientProcessSendMessage(Kyr* kyr, KyrMessage* msg);

/* ---- Routing data --------------------------------------------------------------------------
 * Documents are Jansson values (struct json_t). kyrStrToJson parses a text, reporting bad JSON
 * on the control.error.invalidJSON trace record; NULL when it cannot be parsed. */
KYR_EXPORT struct json_t* kyrStrToJson(Kyr* kyr, const char* text, const char* source);
/* Applies one document delivered by a connector and takes over the caller's reference to it.
 * Returns the document's "version", -1 for a NULL document. */
KYR_EXPORT int64_t kyrHandleJson(struct json_t* doc, const char* docText, KyrConnector* connector);
/* Parses a publisher's answer, stamps the connector into it and applies it; -1 on bad JSON. */
KYR_EXPORT int64_t kyrHandleJsonFromRestService(const char* text, KyrConnector* connector);

/* ---- State report ----------------------------------------------------------------------------
 * What the library knows now: "applications" and "clusters" of the current routing data,
 * "version" (the build level) and "connectorGroups". kyrToJSON returns a new reference; the
 * text forms are allocated with malloc and freed by the caller with free(). The query string
 * of kyrGetStateInfo is accepted for the host's convenience and not used. A handle destroyed
 * while the host still holds a reference reports without "applications" and "clusters". */
KYR_EXPORT struct json_t* kyrToJSON(Kyr* kyr);
KYR_EXPORT char* kyrToJSONString(Kyr* kyr);
KYR_EXPORT char* kyrGetStateInfo(Kyr* kyr, const char* queryString);

/* ---- Request contexts ----------------------------------------------------------------------
 * One context per request: obtain it when the request arrives, ask whether the library routes
 * it, and release it when the request is done. A context may be used by one thread at a time;
 * strings it returns belong to it and stay valid until its release. */
KYR_EXPORT KyrHttpContext* kyrHttpContextObtain(Kyr* kyr, EnvHttpContext* envHttpContext);
KYR_EXPORT void kyrHttpContextRelease(KyrHttpContext* ctx);
/* Maps the request once: 1 when the library routes it; 0 not mapped, -1 bad request. */
KYR_EXPORT int kyrHttpContextShouldHandle(KyrHttpContext* ctx);
/* The edition the request goes to, or NULL with the reject (404 or 500) set on the context. */
KYR_EXPORT const char* kyrHttpContextGetApplicationEditionName(KyrHttpContext* ctx);
KYR_EXPORT void kyrHttpContextSetPermit(KyrHttpContext* ctx, const char* editionName,
                                        Boolean sticky);
KYR_EXPORT void kyrHttpContextSetReject(KyrHttpContext* ctx, int errorCode, const char* errorMsg);
KYR_EXPORT void kyrHttpContextSetRedirect(KyrHttpContext* ctx, const char* url);
/* 0 when the host resumed the suspended request, -1 when it could not, 1 when not suspended. */
KYR_EXPORT int kyrHttpContextCancelRequest(KyrHttpContext* ctx);
/* protocol://virtualHost:virtualPort/path, built once from the host's callbacks. */
KYR_EXPORT const char* kyrHttpContextGetURL(KyrHttpContext* ctx);
/* The state's constant name, "UNKNOWN" for anything else. */
KYR_EXPORT const char* kyrHttpContextStateToString(KyrHttpContextState state);

KYR_EXPORT EnvHttpContext* kyrHttpContextGetEnvContext(KyrHttpContext* ctx);
KYR_EXPORT Kyr* kyrHttpContextGetKyr(KyrHttpContext* ctx);
KYR_EXPORT TrContext* kyrHttpContextGetTrContext(KyrHttpContext* ctx);
KYR_EXPORT const char* kyrHttpContextGetProtocol(KyrHttpContext* ctx);
KYR_EXPORT const char* kyrHttpContextGetVirtualHost(KyrHttpContext* ctx);
KYR_EXPORT int kyrHttpContextGetVirtualPort(KyrHttpContext* ctx);
KYR_EXPORT const char* kyrHttpContextGetPath(KyrHttpContext* ctx);
/* Setters store a copy; NULL clears. */
KYR_EXPORT const char* kyrHttpContextGetApplicationName(KyrHttpContext* ctx);
KYR_EXPORT void kyrHttpContextSetApplicationName(KyrHttpContext* ctx, const char* name);
KYR_EXPORT const char* kyrHttpContextGetModuleName(KyrHttpContext* ctx);
KYR_EXPORT void kyrHttpContextSetModuleName(KyrHttpContext* ctx, const char* name);
KYR_EXPORT const char* kyrHttpContextGetMatchedVHostName(KyrHttpContext* ctx);
KYR_EXPORT void kyrHttpContextSetMatchedVHostName(KyrHttpContext* ctx, const char* name);
KYR_EXPORT void kyrHttpContextSetEditionName(KyrHttpContext* ctx, const char* name);
KYR_EXPORT void kyrHttpContextSetContextRoot(KyrHttpContext* ctx, const char* contextRoot);
KYR_EXPORT KyrTargetEndpoint* kyrHttpContextGetMyTargetEndPoint(KyrHttpContext* ctx);
KYR_EXPORT KyrAction kyrHttpContextGetAction(KyrHttpContext* ctx);
KYR_EXPORT int kyrHttpContextGetErrorCode(KyrHttpContext* ctx);
/* The reason given with a reject, or NULL. */
KYR_EXPORT const char* kyrHttpContextGetErrorMsg(KyrHttpContext* ctx);
/* Whether a permit asks that the session stick to the chosen server. */
KYR_EXPORT Boolean kyrHttpContextGetSticky(KyrHttpContext* ctx);
KYR_EXPORT const char* kyrHttpContextGetRedirectURL(KyrHttpContext* ctx);
KYR_EXPORT KyrHttpContextState kyrHttpContextGetState(KyrHttpContext* ctx);
KYR_EXPORT int kyrHttpContextGetSubState(KyrHttpContext* ctx);
KYR_EXPORT const char* kyrHttpContextGetMessage(KyrHttpContext* ctx);
KYR_EXPORT int kyrHttpContextGetNumOfResponseTimeouts(KyrHttpContext* ctx);
KYR_EXPORT KyrSSLMapMode kyrHttpContextGetSSLMapMode(KyrHttpContext* ctx);
KYR_EXPORT void kyrHttpContextSetSSLMapMode(KyrHttpContext* ctx, KyrSSLMapMode mode);
KYR_EXPORT void kyrHttpContextSetPerformedLoadBalancing(KyrHttpContext* ctx, Boolean performed);
/* The endpoint to forward the request to, chosen once and returned again until a failure is
 * reported; NULL when the request cannot be routed (a reject is then set, except when the
 * request has used up its endpoints). */
KYR_EXPORT KyrTargetEndpoint* kyrHttpContextGetTargetEndpoint(KyrHttpContext* ctx);
/* Retries the target choice once a second while the application is rolled out (at most
 * "MaxSecondsToWaitDuringAtomicRollout" seconds, once per request). Sleeps. */
KYR_EXPORT KyrTargetEndpoint* kyrHttpContextWaitForRollout(KyrHttpContext* ctx);
/* The host's progress reports. After CONNECT_FAILURE, REQUEST_SEND_ERROR, RESPONSE_READ_ERROR
 * or RESPONSE_TIMEOUT the next kyrHttpContextGetTargetEndpoint chooses another server;
 * RESPONSE_ARRIVED runs the response processing. msg is not copied. */
KYR_EXPORT void kyrHttpContextSetState(KyrHttpContext* ctx, KyrHttpContextState state, int subState,
                                       const char* msg);
KYR_EXPORT void kyrHttpContextResetMyTargetInfo(KyrHttpContext* ctx);
/* The name of the chosen endpoint's server, or NULL. */
KYR_EXPORT const char* kyrHttpContextGetTargetEndpointServerName(KyrHttpContext* ctx);
/* Adds the private request headers for the chosen target, once per request. Returns 0. */
KYR_EXPORT int kyrHttpContextAddPrivateHeaders(KyrHttpContext* ctx);
/* Takes the partition table out of the response and sets the affinity cookies. Returns 0. */
KYR_EXPORT int kyrHttpContextPerformResponseProcessing(KyrHttpContext* ctx);
/* Tells the server that the request's session affinity was broken ("$ZQFO"); the host's
 * result. */
KYR_EXPORT int kyrHttpContextBreakAffinity(KyrHttpContext* ctx);

/* ---- Target endpoints ----------------------------------------------------------------------
 * The endpoint a request was routed to. Server-level values are read through the endpoint's
 * server; a NULL endpoint gives NULL, -1 or the defaults of a new server (connect time-out 5,
 * I/O time-out 900, WebSocket I/O 30 and idle 900 seconds, persistent time-out 30). The strings
 * are the library's and stay valid while the request holds the endpoint. */
KYR_EXPORT const char* kyrTargetEndpointGetName(KyrTargetEndpoint* endpoint);
KYR_EXPORT KyrConnector* kyrTargetEndpointGetConnector(KyrTargetEndpoint* endpoint);
KYR_EXPORT const char* kyrTargetEndpointGetClusterName(KyrTargetEndpoint* endpoint);
/* "http", "https", or "invalidProtocol". */
KYR_EXPORT const char* kyrTargetEndpointGetProtocol(KyrTargetEndpoint* endpoint);
KYR_EXPORT const char* kyrTargetEndpointGetHostName(KyrTargetEndpoint* endpoint);
KYR_EXPORT int kyrTargetEndpointGetPort(KyrTargetEndpoint* endpoint);
KYR_EXPORT const char* kyrTargetEndpointGetCloneId(KyrTargetEndpoint* endpoint);
KYR_EXPORT int kyrTargetEndpointGetConnectTimeout(KyrTargetEndpoint* endpoint);
KYR_EXPORT int kyrTargetEndpointGetIOTimeout(KyrTargetEndpoint* endpoint);
/* The cluster's setting; -1 when it is not set or the server has no cluster. */
KYR_EXPORT int kyrTargetEndpointGetIOTimeoutRetry(KyrTargetEndpoint* endpoint);
KYR_EXPORT int kyrTargetEndpointGetPersistentTimeout(KyrTargetEndpoint* endpoint);
KYR_EXPORT Boolean kyrTargetEndpointGetExtendedHandshake(KyrTargetEndpoint* endpoint);
KYR_EXPORT Boolean kyrTargetEndpointGetWaitForContinue(KyrTargetEndpoint* endpoint);
KYR_EXPORT const char* kyrTargetEndpointGetNamedEndpoint(KyrTargetEndpoint* endpoint);
/* The object the host's targetEndpoint.create returned for this endpoint, or NULL. */
KYR_EXPORT EnvTargetEndpoint* kyrTargetEndpointGetEnvTargetEndpoint(KyrTargetEndpoint* endpoint);
KYR_EXPORT int kyrTargetEndpointGetWsIOTimeout(KyrTargetEndpoint* endpoint);
KYR_EXPORT int kyrTargetEndpointGetWsIdleTimeout(KyrTargetEndpoint* endpoint);

/* ---- Library handle: getters and plain setters (no locking) ------------------------------- */
KYR_EXPORT EnvCallBacks* kyrGetEnvCallBacks(Kyr* kyr);
KYR_EXPORT TrMgr* kyrGetTrMgr(Kyr* kyr);
KYR_EXPORT TrMgr* getKyrTrMgr(Kyr* kyr);
KYR_EXPORT TrContext* kyrGetTrContext(Kyr* kyr);
KYR_EXPORT TrRecord* kyrGetDebugIPC(Kyr* kyr);
KYR_EXPORT int kyrGetMaxSecondsToWaitDuringAtomicRollout(Kyr* kyr);
KYR_EXPORT const char* kyrGetServerName(Kyr* kyr);
KYR_EXPORT const char* kyrGetPPID(Kyr* kyr);
KYR_EXPORT const char* kyrGetServerPath(Kyr* kyr);
KYR_EXPORT KyrSSLMapMode kyrGetSSLMapMode(Kyr* kyr);
KYR_EXPORT void kyrSetSSLMapMode(Kyr* kyr, KyrSSLMapMode mode);
KYR_EXPORT const char* kyrGetUnixDomainSocketPath(Kyr* kyr);
KYR_EXPORT void kyrSetUnixDomainSocketPath(Kyr* kyr, const char* path);
KYR_EXPORT uid_t kyrGetUnixDomainSocketUid(Kyr* kyr);
KYR_EXPORT void kyrSetUnixDomainSocketUid(Kyr* kyr, uid_t uid);
KYR_EXPORT KyrTargetEndpoint* kyrGetTargetEndpoint(Kyr* kyr);
KYR_EXPORT int kyrGetMaxTargetEndpointsPerRequest(Kyr* kyr);
KYR_EXPORT void kyrSetMaxTargetEndpointsPerRequest(Kyr* kyr, int max);
KYR_EXPORT Boolean kyrPrivateHeadersDisabled(Kyr* kyr);
/* Milliseconds; (unsigned) -1 means no limit. */
KYR_EXPORT unsigned int kyrGetMaxElapsedTimePerRequest(Kyr* kyr);

#ifdef __cplusplus
}
#endif

#endif /* KYRLIB_KYRLIB_H */
