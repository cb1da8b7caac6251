// The HTTP operands. Each asks the host about the request the rule is evaluated for; a string
// the host does not have gives no result at all, so every comparison with it is false ("is
// null" included), except for `protocol`, which gives a present null text. Texts are borrowed
// from the host, which keeps them for the life of the request.
#include "lang/kyrHttpLanguage.h"

#include <cstring>
#include <string>

#include "kyrlib.h"
#include "lang/kyrCommonLanguage.h"
#include "lang/kyrEvalContext.h"
#include "lang/kyrExpression.h"
#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

struct Request {
  const EnvCallBacks* env;
  EnvHttpContext* http;
};

Request requestOf(EvaluationContext* ec) {
  auto* ctx = static_cast<KyrHttpContext*>(evaluationContextGetObject(ec));
  if (ctx == nullptr) return {nullptr, nullptr};
  return {kyrGetEnvCallBacks(kyrHttpContextGetKyr(ctx)), kyrHttpContextGetEnvContext(ctx)};
}

const char* argumentOf(const Evaluable* self) {
  const auto* expr = static_cast<const Expression*>(self);
  return operandContextGetArgument(static_cast<const OperandContext*>(expr->exprCtx), 0);
}

EvalValue textOrNothing(const char* text) {
  return text != nullptr ? EvalValue::ofString(text) : EvalValue{};
}

using RequestCallbacks = decltype(EnvCallBacks::http.request);

// Operands whose whole value is one request callback without arguments.
template <char* (*RequestCallbacks::*Callback)(EnvHttpContext*)>
EvalValue evaluateText(const Evaluable*, EvaluationContext* ec) {
  Request r = requestOf(ec);
  if (r.env == nullptr || r.env->http.request.*Callback == nullptr) return {};
  return textOrNothing((r.env->http.request.*Callback)(r.http));
}

constexpr auto evaluateUri = evaluateText<&RequestCallbacks::getPath>;
constexpr auto evaluateUid = evaluateText<&RequestCallbacks::getUserName>;
constexpr auto evaluateMethod = evaluateText<&RequestCallbacks::getMethod>;
constexpr auto evaluateClientIp = evaluateText<&RequestCallbacks::getClientIpAddr>;
constexpr auto evaluateVirtualHost = evaluateText<&RequestCallbacks::getVirtualHost>;
constexpr auto evaluateServerIp = evaluateText<&RequestCallbacks::getLocalAddress>;

EvalValue evaluateProtocol(const Evaluable*, EvaluationContext* ec) {
  Request r = requestOf(ec);
  const char* protocol = r.env != nullptr && r.env->http.request.getProtocol != nullptr
                             ? r.env->http.request.getProtocol(r.http)
                             : nullptr;
  return EvalValue::ofString(protocol);  // deliberately present even when the host has none
}

EvalValue evaluateVirtualPort(const Evaluable*, EvaluationContext* ec) {
  Request r = requestOf(ec);
  if (r.env == nullptr || r.env->http.request.getVirtualPort == nullptr) return {};
  return EvalValue::ofInt(r.env->http.request.getVirtualPort(r.http));
}

EvalValue evaluateHeader(const Evaluable* self, EvaluationContext* ec) {
  Request r = requestOf(ec);
  const char* name = argumentOf(self);
  if (r.env == nullptr || name == nullptr || r.env->http.request.getHeaderValue == nullptr) {
    return {};
  }
  return textOrNothing(r.env->http.request.getHeaderValue(r.http, const_cast<char*>(name)));
}

EvalValue evaluateCookie(const Evaluable* self, EvaluationContext* ec) {
  Request r = requestOf(ec);
  const char* name = argumentOf(self);
  if (r.env == nullptr || name == nullptr || r.env->http.request.getCookieValue == nullptr) {
    return {};
  }
  return textOrNothing(r.env->http.request.getCookieValue(r.http, const_cast<char*>(name)));
}

EvalValue evaluateQueryParm(const Evaluable* self, EvaluationContext* ec) {
  Request r = requestOf(ec);
  const char* name = argumentOf(self);
  if (r.env == nullptr || name == nullptr || r.env->http.request.getQueryString == nullptr) {
    return {};
  }
  char* value = getQueryParm(r.env->http.request.getQueryString(r.http), name);
  return value != nullptr ? EvalValue::ofOwnedString(value) : EvalValue{};
}

// A proxy in front of us names the client in "$ZQRH"; otherwise the host knows it.
EvalValue evaluateClientHost(const Evaluable*, EvaluationContext* ec) {
  Request r = requestOf(ec);
  if (r.env == nullptr) return {};
  const auto& rq = r.env->http.request;
  const char* proxied = rq.getHeaderValue != nullptr
                            ? rq.getHeaderValue(r.http, const_cast<char*>("$ZQRH"))
                            : nullptr;
  if (proxied != nullptr && *proxied != '\0') return EvalValue::ofString(proxied);
  return textOrNothing(rq.getClientHostName != nullptr ? rq.getClientHostName(r.http) : nullptr);
}

// The group names in the rule language's list notation, "('a','b')". Registered as a list
// but delivered as a text; the list operators treat such a value as no list.
EvalValue evaluateGids(const Evaluable*, EvaluationContext* ec) {
  Request r = requestOf(ec);
  if (r.env == nullptr || r.env->http.request.getGroupNames == nullptr) return {};
  char** names = r.env->http.request.getGroupNames(r.http);
  if (names == nullptr || names[0] == nullptr) return {};
  std::string text = "('" + std::string(names[0]);
  for (char** n = names + 1; *n != nullptr; ++n) text += "','" + std::string(*n);
  text += "')";
  return EvalValue::ofOwnedString(kyrStrdup(text.c_str()));
}

Expression* createPlain(Operand*, OperandContext*) { return kyrNew<Expression>(); }

Expression* createOneArgument(Operand*, OperandContext* ctx) {
  return ctx->numActualArgs == 1 ? kyrNew<Expression>() : nullptr;
}

void registerPlain(Language* lang, const char* name, EvaluateFcn evaluate, ExpressionType type) {
  langRegisterOperand(lang, operandCreate(name, 0, nullptr, 0, nullptr, createPlain, nullptr,
                                          evaluate, nullptr, 1, type));
}

void registerOneArgument(Language* lang, const char* name, const char* argument,
                         EvaluateFcn evaluate, ExpressionType type) {
  FormalArg* args[] = {formalArgCreate(argument, ARG_STRING, nullptr, 0, nullptr)};
  langRegisterOperand(lang, operandCreate(name, 0, nullptr, 1, args, createOneArgument, nullptr,
                                          evaluate, nullptr, 1, type));
}

}  // namespace

char* getQueryParm(const char* queryString, const char* parmName) {
  if (queryString == nullptr || parmName == nullptr) return nullptr;
  const char* name = strstr(queryString, parmName);
  if (name == nullptr) return nullptr;
  const char* equals = strchr(name, '=');
  const char* amp = strchr(name, '&');
  if (equals == nullptr) {
    return amp != nullptr ? kyrStrndup(name, static_cast<size_t>(amp - name)) : kyrStrdup(name);
  }
  if (amp == nullptr) return kyrStrdup(equals + 1);
  if (amp < equals) return kyrStrndup(name, static_cast<size_t>(amp - name));
  return kyrStrndup(equals + 1, static_cast<size_t>(amp - equals - 1));
}

void langRegisterHttpOperands(Language* lang) {
  registerPlain(lang, "uri", evaluateUri, EXPR_STRING);
  registerOneArgument(lang, "queryparm", "name", evaluateQueryParm, EXPR_STRING);
  registerPlain(lang, "uid", evaluateUid, EXPR_STRING);
  registerOneArgument(lang, "gids", "securityRealm", evaluateGids, EXPR_LIST);
  registerOneArgument(lang, "header", "headerName", evaluateHeader, EXPR_STRING);
  registerOneArgument(lang, "cookie", "cookieName", evaluateCookie, EXPR_STRING);
  SelectableValue* methods[] = {selectableValueStrCreate("GET", "HTTPLang.Operand.HttpGet"),
                                selectableValueStrCreate("POST", "HTTPLang.Operand.HttpPost"),
                                selectableValueStrCreate("PUT", "HTTPLang.Operand.HttpPut"),
                                selectableValueStrCreate("DELETE", "HTTPLang.Operand.HttpDelete")};
  langRegisterOperand(lang, operandCreate("HTTPMethod", 4, methods, 0, nullptr, createPlain,
                                          nullptr, evaluateMethod, nullptr, 1, EXPR_STRING));
  registerPlain(lang, "clienthost", evaluateClientHost, EXPR_STRING);
  registerPlain(lang, "clientipv4", evaluateClientIp, EXPR_STRING);
  registerPlain(lang, "clientipv6", evaluateClientIp, EXPR_STRING);
  registerPlain(lang, "serverhost", evaluateVirtualHost, EXPR_STRING);
  registerPlain(lang, "serveripv4", evaluateServerIp, EXPR_STRING);
  registerPlain(lang, "serveripv6", evaluateServerIp, EXPR_STRING);
  registerPlain(lang, "port", evaluateVirtualPort, EXPR_INT);
  registerPlain(lang, "protocol", evaluateProtocol, EXPR_STRING);
  registerPlain(lang, "virtualhost", evaluateVirtualHost, EXPR_STRING);
  registerPlain(lang, "virtualport", evaluateVirtualPort, EXPR_INT);
}

void langRegisterHttpOperators(Language* lang) { langRegisterCommonOperators(lang); }

Language* langCreateHttpLanguage(TrContext* trCtx, TrRecord* trRec) {
  Language* lang = langCreate(trCtx, trRec);
  langRegisterCommonOperands(lang);
  langRegisterHttpOperands(lang);
  langRegisterHttpOperators(lang);
  return lang;
}

}  // namespace kyr
