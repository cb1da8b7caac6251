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
 */
#ifndef KYRLIB_KYRLIB_H
#define KYRLIB_KYRLIB_H

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

/* The host's callback table. Members marked required in the documentation must be set;
 * kyrCreate fills the connector members and alarm_ex with built-in defaults when NULL. */
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

#ifdef __cplusplus
}
#endif

#endif /* KYRLIB_KYRLIB_H */
