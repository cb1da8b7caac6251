// The value types of the rule language and the result of evaluating one expression.
#pragma once

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrList.h"

namespace kyr {

// Values are fixed.
enum ExpressionType {
  EXPR_UNKNOWN = 0,
  EXPR_BOOLEAN = 1,
  EXPR_INT = 2,
  EXPR_LONG = 3,
  EXPR_STRING = 4,
  EXPR_LIST = 5
};

const char* expressionTypeToString(int type);

// The result of one evaluation: one value of one type, or no result at all (the expression
// could not be evaluated, which every consumer treats as false).
//
// Rules run for every request, and every operator and operand of a rule yields one of these,
// so results are small values returned on the stack rather than heap cells the caller frees:
// evaluating a rule allocates nothing unless an operator builds a new text (concatenation),
// and that one owned text is freed by the value itself. Texts are otherwise borrowed: a
// constant's text lives as long as its expression, an operand's text as long as the object
// evaluated (the request). A list is always borrowed from its list expression.
class EvalValue {
 public:
  EvalValue() = default;  // no result
  static EvalValue ofBoolean(bool b) {
    EvalValue v(EXPR_BOOLEAN);
    v.p_.b = b;
    return v;
  }
  static EvalValue ofInt(int i) {
    EvalValue v(EXPR_INT);
    v.p_.i = i;
    return v;
  }
  static EvalValue ofLong(long l) {
    EvalValue v(EXPR_LONG);
    v.p_.l = l;
    return v;
  }
  // A null text is a present value that holds no text ("is null" is true for it).
  static EvalValue ofString(const char* s) {
    EvalValue v(EXPR_STRING);
    v.p_.s = s;
    return v;
  }
  // Takes a counted text (kyrMalloc) that the value frees.
  static EvalValue ofOwnedString(char* s) {
    EvalValue v = ofString(s);
    v.owned_ = s;
    return v;
  }
  static EvalValue ofList(const KyrList* list) {
    EvalValue v(EXPR_LIST);
    v.p_.list = list;
    return v;
  }

  EvalValue(EvalValue&& o) noexcept : type_(o.type_), p_(o.p_), owned_(o.owned_) {
    o.owned_ = nullptr;
  }
  EvalValue& operator=(EvalValue&& o) noexcept {
    if (this != &o) {
      kyrFree(owned_);
      type_ = o.type_;
      p_ = o.p_;
      owned_ = o.owned_;
      o.owned_ = nullptr;
    }
    return *this;
  }
  EvalValue(const EvalValue&) = delete;
  EvalValue& operator=(const EvalValue&) = delete;
  ~EvalValue() { kyrFree(owned_); }

  ExpressionType type() const { return type_; }
  bool present() const { return type_ != EXPR_UNKNOWN; }
  bool isBoolean() const { return type_ == EXPR_BOOLEAN; }
  // Integer slots take longs and integer values alike, read as int.
  bool isIntegral() const { return type_ == EXPR_INT || type_ == EXPR_LONG; }
  bool isString() const { return type_ == EXPR_STRING; }
  bool isList() const { return type_ == EXPR_LIST; }

  bool boolean() const { return p_.b; }
  int integer() const { return type_ == EXPR_LONG ? static_cast<int>(p_.l) : p_.i; }
  long longValue() const { return type_ == EXPR_INT ? p_.i : p_.l; }
  const char* string() const { return p_.s; }
  const KyrList* list() const { return p_.list; }

  // The value's first word read as a boolean: what a rule's match is decided by, whatever
  // type its expression ended up with.
  bool firstWordAsBoolean() const {
    switch (type_) {
      case EXPR_BOOLEAN:
        return p_.b;
      case EXPR_INT:
        return p_.i != 0;
      case EXPR_LONG:
        return p_.l != 0;
      case EXPR_STRING:
        return p_.s != nullptr;
      case EXPR_LIST:
        return p_.list != nullptr;
      default:
        return false;
    }
  }

 private:
  explicit EvalValue(ExpressionType type) : type_(type) {}

  union Payload {
    long l;
    bool b;
    int i;
    const char* s;
    const KyrList* list;
  };

  ExpressionType type_ = EXPR_UNKNOWN;
  Payload p_{.l = 0};
  char* owned_ = nullptr;  // the text in p_.s when this value owns it
};

}  // namespace kyr
