// libFuzzer target for rule texts, which arrive from routing data: tokenize, parse and evaluate
// arbitrary text with the test language, directly and as a rule of a rule set, and require
// that every allocation is given back.
#include <cstddef>
#include <cstdint>
#include <string>

#include "lang/kyrLangHooks.h"
#include "lang/kyrRule.h"
#include "lang/langTestLanguage.h"

namespace {

using namespace kyr;

time_t fixedClock() { return 1710505800; }  // mid-March 2024
int fixedRandom() { return 4242; }

struct Fixture {
  Fixture() : lang(langtest::createTestLanguage()), rules(kyrRulesCreate(lang, nullptr)) {
    langSetClock(fixedClock);
    langSetRandom(fixedRandom);
    request.uri = "/trade/buy";
    request.cookies["JSESSIONID"] = "abc";
    request.cookies["a"] = "1";
  }
  Language* lang;
  KyrRules* rules;
  langtest::TestRequest request;
};

Fixture& fixture() {
  static Fixture f;  // built once: languages live as long as the process in the library too
  return f;
}

void walkTokens(Tokenizer* t) {
  char buffer[128];
  while (Token* tok = tokenizerConsumeNextToken(t)) tokenToString(tok, buffer, sizeof buffer);
  tokenizerRewind(t);
}

void parseAndEvaluate(Fixture& f, const char* text, ExpressionType type) {
  Tokenizer* t = tokenizerCreate(text);
  if (!tokenizerIsError(t)) {
    walkTokens(t);
    Expression* expr = langParse(f.lang, t, 0, type, nullptr);
    LocalEvaluationContext ec(nullptr, nullptr, &f.request);
    expressionEvaluate(expr, ec.get());
    expressionFree(expr);
  }
  tokenizerFree(t);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fixture& f = fixture();
  const std::string text(reinterpret_cast<const char*>(data), size);  // a NUL ends the rule
  int before = kyrGetMemCount();
  parseAndEvaluate(f, text.c_str(), EXPR_BOOLEAN);
  parseAndEvaluate(f, text.c_str(), EXPR_STRING);
  KyrRule* rule = kyrRuleCreate(f.rules);
  kyrRuleSetExpr(rule, text.c_str());
  kyrRulesInsertRule(f.rules, rule);
  kyrRulesFindMatchingRule(nullptr, f.rules, &f.request);
  kyrRuleFree(rule);
  if (kyrGetMemCount() != before) __builtin_trap();  // a counted allocation was not freed
  return 0;
}
