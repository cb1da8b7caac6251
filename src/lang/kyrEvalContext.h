// Evaluation contexts: what one evaluation of a rule runs against (the object, for HTTP rules
// the request), with named properties that operands may leave for each other and the trace
// context the operators write their debug lines to.
#pragma once

#include "runtime/kyrList.h"
#include "tr.h"

namespace kyr {

struct EvaluationContext {
  void* object;
  KyrList* properties;  // of EvaluationContextProp, created on first use
  TrContext* trCtx;
  TrRecord* trRec_Debug;  // "http.request.rules.process"
  // Whether trRec_Debug is enabled, asked once per evaluation (-1 until then): every operator
  // writes a debug line, and asking the trace context takes its lock each time.
  int debugEnabled;
};

struct EvaluationContextProp {
  char* name;  // owned
  void* val;   // a counted allocation; freed only when replaced
};

// Looks the debug record up in the trace context's manager.
EvaluationContext* evaluationContextCreate(TrContext* trCtx, void* object);
void evaluationContextFree(EvaluationContext* ec);
// For a context held elsewhere (on the stack) by a caller that already has the debug record.
void evaluationContextInit(EvaluationContext* ec, TrContext* trCtx, TrRecord* debugRec,
                           void* object);
void evaluationContextClear(EvaluationContext* ec);  // destroys the property list

void* evaluationContextGetObject(const EvaluationContext* ec);
TrContext* evaluationContextGetTrContext(const EvaluationContext* ec);
TrRecord* evaluationContextGetTrRecord(const EvaluationContext* ec);

// Replaces the value of the property `name` (case-sensitive; the old value is freed) or appends
// a new property. Returns the property.
EvaluationContextProp* evaluationContextSetProp(EvaluationContext* ec, const char* name, void* val);
// The list element of the property; with a null name the first element.
KyrListEle* evaluationContextFindProp(const EvaluationContext* ec, const char* name);
void* evaluationContextFindPropVal(const EvaluationContext* ec, const char* name);
// Frees the name only: deliberately, a value is freed only when it is replaced.
void evaluationContextPropDestroy(void* prop);
const char* evaluationContextPropGetName(const EvaluationContextProp* prop);
void* evaluationContextPropGetValue(const EvaluationContextProp* prop);

bool evaluationContextDebugEnabled(EvaluationContext* ec);

// A debug line on the context's record; nothing is formatted unless the record is enabled.
template <class... Args>
void evaluationContextDebug(EvaluationContext* ec, const char* fmt, Args... args) {
  if (evaluationContextDebugEnabled(ec)) trContextDebug(ec->trCtx, ec->trRec_Debug, fmt, args...);
}

// An evaluation context on the stack.
class LocalEvaluationContext {
 public:
  LocalEvaluationContext(TrContext* trCtx, TrRecord* debugRec, void* object) {
    evaluationContextInit(&ec_, trCtx, debugRec, object);
  }
  ~LocalEvaluationContext() { evaluationContextClear(&ec_); }
  LocalEvaluationContext(const LocalEvaluationContext&) = delete;
  LocalEvaluationContext& operator=(const LocalEvaluationContext&) = delete;
  EvaluationContext* get() { return &ec_; }

 private:
  EvaluationContext ec_;
};

}  // namespace kyr
