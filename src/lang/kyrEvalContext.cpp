// Evaluation contexts and their named properties.
#include "lang/kyrEvalContext.h"

#include <cstring>

#include "runtime/kyrLibUtil.h"
#include "trace/trWrite.h"

namespace kyr {

EvaluationContext* evaluationContextCreate(TrContext* trCtx, void* object) {
  auto* ec = static_cast<EvaluationContext*>(kyrMalloc(sizeof(EvaluationContext)));
  TrRecord* rec = trMgrGetRecord(trContextGetMgr(trCtx), "http.request.rules.process");
  evaluationContextInit(ec, trCtx, rec, object);
  return ec;
}

void evaluationContextFree(EvaluationContext* ec) {
  if (ec == nullptr) return;
  evaluationContextClear(ec);
  kyrFree(ec);
}

void evaluationContextInit(EvaluationContext* ec, TrContext* trCtx, TrRecord* debugRec,
                           void* object) {
  ec->object = object;
  ec->properties = nullptr;
  ec->trCtx = trCtx;
  ec->trRec_Debug = debugRec;
  ec->debugEnabled = -1;
}

void evaluationContextClear(EvaluationContext* ec) {
  kyrListDestroyDbg(ec->properties);
  ec->properties = nullptr;
}

void* evaluationContextGetObject(const EvaluationContext* ec) {
  return ec != nullptr ? ec->object : nullptr;
}

TrContext* evaluationContextGetTrContext(const EvaluationContext* ec) {
  return ec != nullptr ? ec->trCtx : nullptr;
}

TrRecord* evaluationContextGetTrRecord(const EvaluationContext* ec) {
  return ec != nullptr ? ec->trRec_Debug : nullptr;
}

EvaluationContextProp* evaluationContextSetProp(EvaluationContext* ec, const char* name,
                                                void* val) {
  if (KyrListEle* ele = evaluationContextFindProp(ec, name); ele != nullptr && name != nullptr) {
    auto* prop = static_cast<EvaluationContextProp*>(kyrListEleGetObject(ele));
    if (prop->val != val) kyrFree(prop->val);
    prop->val = val;
    return prop;
  }
  if (ec->properties == nullptr) ec->properties = kyrListCreateDbg(evaluationContextPropDestroy);
  auto* prop = static_cast<EvaluationContextProp*>(kyrMalloc(sizeof(EvaluationContextProp)));
  prop->name = kyrStrdup(name);
  prop->val = val;
  kyrListAddTail(ec->properties, prop);
  return prop;
}

KyrListEle* evaluationContextFindProp(const EvaluationContext* ec, const char* name) {
  if (ec == nullptr) return nullptr;
  KyrListEle* ele = kyrListGetHead(ec->properties);
  if (name == nullptr) return ele;
  for (; ele != nullptr; ele = kyrListGetNext(ele)) {
    auto* prop = static_cast<EvaluationContextProp*>(kyrListEleGetObject(ele));
    if (prop->name != nullptr && strcmp(prop->name, name) == 0) return ele;
  }
  return nullptr;
}

void* evaluationContextFindPropVal(const EvaluationContext* ec, const char* name) {
  KyrListEle* ele = evaluationContextFindProp(ec, name);
  return ele != nullptr ? static_cast<EvaluationContextProp*>(kyrListEleGetObject(ele))->val
                        : nullptr;
}

void evaluationContextPropDestroy(void* object) {
  auto* prop = static_cast<EvaluationContextProp*>(object);
  if (prop == nullptr) return;
  kyrFree(prop->name);
  kyrFree(prop);
}

const char* evaluationContextPropGetName(const EvaluationContextProp* prop) {
  return prop != nullptr ? prop->name : nullptr;
}

void* evaluationContextPropGetValue(const EvaluationContextProp* prop) {
  return prop != nullptr ? prop->val : nullptr;
}

bool evaluationContextDebugEnabled(EvaluationContext* ec) {
  if (ec->debugEnabled < 0) ec->debugEnabled = trEnabled(ec->trCtx, ec->trRec_Debug) ? 1 : 0;
  return ec->debugEnabled == 1;
}

}  // namespace kyr
