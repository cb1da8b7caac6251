// Parsing of rule texts into expression trees: a shift-and-reduce loop over the tokenizer's
// tokens whose reductions come entirely from the language's registered operator patterns.
#pragma once

#include <vector>

#include "lang/kyrExpression.h"
#include "lang/kyrTokenizer.h"

namespace kyr {

// The root expression, or null. Syntax errors are recorded in the tokenizer, so callers test
// tokenizerIsError afterwards; a text that leaves more than one unreduced entry gives null
// without a syntax error. `type` is what a lone operand becomes; groups parse as EXPR_LIST.
Expression* langParse(Language* lang, Tokenizer* t, int depth, ExpressionType type, void* passback);

// The kinds of entries on the parse stack.
enum ElementEntryType {
  eet_Unknown = 0,
  eet_OperandInstanceInfo = 1,
  eet_Identifier = 2,  // a keyword of some operator, as written
  eet_Expression = 3
};

const char* elementEntryTypeToString(int type);

struct ElementEntry {
  ElementEntryType elementType;
  KyrDestructorFcn destructor;
  void* object;  // owned; null once taken over
};

// The parse stack of one group; frees whatever is still on it when it goes.
class ElementStack {
 public:
  ElementStack() = default;
  ~ElementStack() { truncate(0); }
  ElementStack(const ElementStack&) = delete;
  ElementStack& operator=(const ElementStack&) = delete;

  int size() const { return static_cast<int>(entries_.size()); }
  ElementEntry& at(int i) { return entries_[static_cast<size_t>(i)]; }
  void push(ElementEntryType type, KyrDestructorFcn destructor, void* object) {
    entries_.push_back({type, destructor, object});
  }
  void pushExpression(Expression* expr) { push(eet_Expression, expressionDestroy, expr); }
  // Frees the entries from `from` to the top.
  void truncate(int from);

 private:
  std::vector<ElementEntry> entries_;
};

// Reduces until a pass changes nothing; true when anything was reduced.
bool langReduceCompletely(Language* lang, ElementStack& stack, const ExpressionOrigin& origin);

}  // namespace kyr
