// A small rule language for tests, benchmarks and the fuzzer: the common operators and
// operands plus a few operands that read a toy request, standing in for the HTTP operands.
//   uri             STRING  the request path; no result when the request has none
//   cookie$name     STRING  a cookie; no result when absent (as a host's missing cookie)
//   port            INT     the port
//   multi           STRING or INT: "7" or 7, whichever the pattern asks for
//   arg2(first, second)  STRING  "first|second" ("null" for a missing argument)
//   gids            LIST    registered as a list but delivers a text, as the HTTP `gids` does
//   emptylist       LIST    an empty list
#pragma once

#include <map>
#include <string>

#include "lang/kyrCommonLanguage.h"
#include "lang/kyrEvalContext.h"
#include "lang/kyrExpression.h"
#include "lang/kyrLangParse.h"
#include "runtime/kyrLibUtil.h"

namespace kyr::langtest {

struct TestRequest {
  const char* uri = "/";
  std::map<std::string, std::string> cookies;
  int port = 80;
  const char* groups = "('admins','users')";
};

namespace operands {

inline const TestRequest* requestOf(EvaluationContext* ec) {
  return static_cast<const TestRequest*>(evaluationContextGetObject(ec));
}

inline const char* argumentOf(const Evaluable* self, int i) {
  const auto* expr = static_cast<const Expression*>(self);
  return operandContextGetArgument(static_cast<const OperandContext*>(expr->exprCtx), i);
}

inline Expression* createPlain(Operand*, OperandContext*) { return kyrNew<Expression>(); }

inline Expression* createOneArg(Operand*, OperandContext* ctx) {
  return ctx->numActualArgs == 1 ? kyrNew<Expression>() : nullptr;
}

inline EvalValue evaluateUri(const Evaluable*, EvaluationContext* ec) {
  const TestRequest* r = requestOf(ec);
  if (r == nullptr || r->uri == nullptr) return {};
  return EvalValue::ofString(r->uri);
}

inline EvalValue evaluateCookie(const Evaluable* self, EvaluationContext* ec) {
  const TestRequest* r = requestOf(ec);
  const char* name = argumentOf(self, 0);
  if (r == nullptr || name == nullptr) return {};
  auto it = r->cookies.find(name);
  if (it == r->cookies.end()) return {};
  return EvalValue::ofString(it->second.c_str());
}

inline EvalValue evaluatePort(const Evaluable*, EvaluationContext* ec) {
  const TestRequest* r = requestOf(ec);
  return r != nullptr ? EvalValue::ofInt(r->port) : EvalValue{};
}

inline EvalValue evaluateMulti(const Evaluable* self, EvaluationContext*) {
  if (expressionGetType(static_cast<const Expression*>(self)) == EXPR_INT) {
    return EvalValue::ofInt(7);
  }
  return EvalValue::ofString("7");
}

inline EvalValue evaluateArg2(const Evaluable* self, EvaluationContext*) {
  const char* first = argumentOf(self, 0);
  const char* second = argumentOf(self, 1);
  std::string joined = std::string(first ? first : "null") + "|" + (second ? second : "null");
  return EvalValue::ofOwnedString(kyrStrdup(joined.c_str()));
}

inline EvalValue evaluateGids(const Evaluable*, EvaluationContext* ec) {
  const TestRequest* r = requestOf(ec);
  if (r == nullptr || r->groups == nullptr) return {};
  return EvalValue::ofString(r->groups);
}

inline EvalValue evaluateEmptyList(const Evaluable*, EvaluationContext*) {
  static const KyrList empty{};
  return EvalValue::ofList(&empty);
}

inline FormalArg* stringArg(const char* name) {
  return formalArgCreate(name, ARG_STRING, nullptr, 0, nullptr);
}

inline void registerTestOperands(Language* lang) {
  langRegisterOperand(lang, operandCreate("uri", 0, nullptr, 0, nullptr, createPlain, nullptr,
                                          evaluateUri, nullptr, 1, EXPR_STRING));
  FormalArg* cookieArgs[] = {stringArg("cookieName")};
  langRegisterOperand(lang, operandCreate("cookie", 0, nullptr, 1, cookieArgs, createOneArg,
                                          nullptr, evaluateCookie, nullptr, 1, EXPR_STRING));
  langRegisterOperand(lang, operandCreate("port", 0, nullptr, 0, nullptr, createPlain, nullptr,
                                          evaluatePort, nullptr, 1, EXPR_INT));
  langRegisterOperand(lang, operandCreate("multi", 0, nullptr, 0, nullptr, createPlain, nullptr,
                                          evaluateMulti, nullptr, 2, EXPR_STRING, EXPR_INT));
  FormalArg* arg2Args[] = {stringArg("first"), stringArg("second")};
  langRegisterOperand(lang, operandCreate("arg2", 0, nullptr, 2, arg2Args, createPlain, nullptr,
                                          evaluateArg2, nullptr, 1, EXPR_STRING));
  langRegisterOperand(lang, operandCreate("gids", 0, nullptr, 0, nullptr, createPlain, nullptr,
                                          evaluateGids, nullptr, 1, EXPR_LIST));
  langRegisterOperand(lang, operandCreate("emptylist", 0, nullptr, 0, nullptr, createPlain, nullptr,
                                          evaluateEmptyList, nullptr, 1, EXPR_LIST));
}

}  // namespace operands

// Common operands, the test operands, then the common operators: the order the HTTP language
// registers in.
inline Language* createTestLanguage(TrContext* trCtx = nullptr, TrRecord* trRec = nullptr) {
  Language* lang = langCreate(trCtx, trRec);
  langRegisterCommonOperands(lang);
  operands::registerTestOperands(lang);
  langRegisterCommonOperators(lang);
  return lang;
}

}  // namespace kyr::langtest
