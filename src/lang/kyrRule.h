// Rules and rule sets: a rule is a parsed rule-language expression with an order number, a
// type and an attached object (an Action for work-class routing rules, a trace specification
// for trace rules, the owner's object for health policies). A rule set keeps its rules
// ascending by order and answers which rule first matches a request.
#pragma once

#include "kyrlib.h"
#include "lang/kyrExpression.h"
#include "runtime/kyrList.h"
#include "runtime/kyrLock.h"

namespace kyr {

enum KyrRuleType : int {
  KYRRULETYPE_UNKNOWN = 0,
  KYRRULETYPE_WEBROUTEWORKCLASS = 1,
  KYRRULETYPE_REQUESTTRACE = 2,
  KYRRULETYPE_CONTROLTRACE = 3,
  KYRRULETYPE_HEALTHPOLICY = 4
};

enum KyrRulesType : int {
  KYRRULESTYPE_UNKNOWN = 0,
  KYRRULESTYPE_WEBROUTEWORKCLASS = 1,
  KYRRULESTYPE_VQTRACESPEC = 2
};

enum KyrRuleParentWrapperType {
  KYRRULEPARENTTYPE_UNKNOWN = 0,
  KYRRULEPARENTTYPE_WEBROUTEWORKCLASS = 1,
  KYRRULEPARENTTYPE_VQTRACESPEC = 2
};

// A rule created with no explicit order sorts after every rule that was given one.
constexpr int kKyrRuleDefaultOrder = 999800;

// How a set whose rules requests match without its lock gives up what a change replaces (a
// rule, its expression or action, the old match order): a request may still be reading it, so
// the owner frees it later, when no request can.
using KyrRulesRetireFcn = void (*)(void* owner, void* object, void (*freeFn)(void*), size_t bytes);

struct KyrRules;

struct KyrRule {
  KyrRules* rules;    // the set it was created for
  Expression* expr;   // owned, or null
  char* errorString;  // the last parse error, copied from the tokenizer
  int errorPosition;  // -1 when parsed
  char* errorPositionIndicatorString;
  void* object;            // attached object, freed by rule type (see kyrRuleFree)
  void* application;       // the owner's, opaque
  char* expressionString;  // owned copy of the text
  int order;
  KyrRuleType ruleType;
};

struct KyrRules {
  // Ascending by order; equal orders keep their insertion order. The set owns the rules in it.
  // Changes take `lock`.
  KyrList* rules;
  KyrLock* lock;
  // `rules` as a null-terminated array, rebuilt under `lock` at each change and published:
  // matching walks it without the lock. Without a retire function what a change replaces is
  // freed at once, so matching such a set needs the lock.
  KyrRule** matchOrder;
  KyrRulesRetireFcn retire;
  void* retireOwner;
  // How many rules the set holds: changed under `lock` with atomic stores, so that a request
  // can pass an empty set by without taking the lock every request thread shares.
  int size;
  Language* language;
  Kyr* kyr;
  KyrRulesType type;
  TrRecord* recReqMatch;          // "http.request.rules.traceRuleMatch"
  TrRecord* recReqProcess;        // "http.request.rules.process"
  TrRecord* recCtrlParseError;    // "control.rules.parsing.error"
  TrRecord* recCtrlParseProcess;  // "control.rules.parsing.process"
  TrRecord* recCtrlInsert;        // "control.rules.insertAndRemove"
  TrRecord* recCtrlList;          // "control.rules.list"
  TrRecord* recCtrlProcess;       // "control.rules.process"
};

struct KyrRuleParentWrapper {
  KyrRuleParentWrapperType type;
  void* object;  // the owner of a rule set: a work class or a trace specification holder
};

// Rule sets. A null handle leaves the set without trace.
KyrRules* kyrRulesCreate(Language* language, Kyr* kyr);
// Frees the set with the rules still in it.
void kyrRulesFree(KyrRules* rules);
void kyrRulesSetType(KyrRules* rules, KyrRulesType type);
KyrRulesType kyrRulesGetType(const KyrRules* rules);
const char* kyrRulesGetTypeString(const KyrRules* rules);
void kyrRulesSetKyr(KyrRules* rules, Kyr* kyr);  // also looks the trace records up again
Kyr* kyrRulesGetKyr(const KyrRules* rules);
Language* kyrRulesGetLang(const KyrRules* rules);
void kyrRulesLockObtain(KyrRules* rules, const char* who);
void kyrRulesLockRelease(KyrRules* rules);
// Before the first rule of strictly greater order; the set takes the rule over.
void kyrRulesInsertRule(KyrRules* rules, KyrRule* rule);
// Takes the rule (by identity) out of the set and hands it back; null when it is not there.
KyrRule* kyrRulesRemoveRule(KyrRules* rules, KyrRule* rule);
// Frees every rule in the set.
void kyrRulesPurge(KyrRules* rules);
// From now on what changes replace is handed to `retire`, and requests match without the lock.
void kyrRulesSetRetire(KyrRules* rules, KyrRulesRetireFcn retire, void* owner);
// Frees `object` with `freeFn` now, or later through the set's retire function when it has one.
void kyrRulesDispose(KyrRules* rules, void* object, void (*freeFn)(void*), size_t bytes);
bool kyrRulesIsEmpty(KyrRules* rules);  // without the lock; a set filled meanwhile may be missed
// The first rule, lowest order first, whose expression is true for `object`; null for none.
KyrRule* kyrRulesFindMatchingRule(TrContext* trCtx, KyrRules* rules, void* object);
// Writes the set to `recCtrlList` of `trCtx`.
void dumpRules(const char* where, TrContext* trCtx, KyrRules* rules);

// Rules. A new rule has no expression and the default order, and is not yet in its set.
KyrRule* kyrRuleCreate(KyrRules* rules);
// Takes the rule out of its set and frees it with its attached object as its type says:
// an Action for work-class rules, a trace-specification reference for trace rules, nothing
// for other types (a health policy keeps its own objects).
void kyrRuleFree(KyrRule* rule);
// Frees a rule that no set holds any more, with its attached object and parse.
void kyrRuleFreeDetached(void* rule);
// Parses `text` (null means no expression, which is not an error); true when the rule now
// holds a valid expression. On failure the error, position and caret line are kept. The new
// parse replaces the old one whole, so a request matching meanwhile sees one or the other.
bool kyrRuleSetExpr(KyrRule* rule, const char* text);
bool kyrRuleMatches(TrContext* trCtx, KyrRule* rule, void* object);

void kyrRuleSetOrder(KyrRule* rule, int order);
int kyrRuleGetOrder(const KyrRule* rule);
void kyrRuleSetType(KyrRule* rule, KyrRuleType type);
KyrRuleType kyrRuleGetType(const KyrRule* rule);
const char* kyrRuleGetTypeString(const KyrRule* rule);
void kyrRuleSetObject(KyrRule* rule, void* object);  // published: requests read it unlocked
void* kyrRuleGetObject(const KyrRule* rule);
void kyrRuleSetApplication(KyrRule* rule, void* application);
void* kyrRuleGetApplication(const KyrRule* rule);
KyrRules* kyrRuleGetRules(const KyrRule* rule);
Expression* kyrRuleGetExpr(const KyrRule* rule);
const char* kyrRuleGetExpressionString(const KyrRule* rule);
bool kyrRuleIsError(const KyrRule* rule);
const char* kyrRuleGetError(const KyrRule* rule);
int kyrRuleGetErrorPosition(const KyrRule* rule);
const char* kyrRuleGetErrorPositionIndicatorString(const KyrRule* rule);

KyrRuleParentWrapper* kyrRuleParentWrapperCreate(void* object, KyrRuleParentWrapperType type);
void kyrRuleParentWrapperDestroy(KyrRuleParentWrapper* wrapper);
KyrRuleParentWrapperType kyrRuleParentWrapperGetType(const KyrRuleParentWrapper* wrapper);
void* kyrRuleParentWrapperGetObject(const KyrRuleParentWrapper* wrapper);

}  // namespace kyr
