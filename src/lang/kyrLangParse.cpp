// The parse loop of one parenthesis group: shifts constants, keywords and operand references
// onto the stack, reduces after every token, collects comma-separated list items, and turns
// what is left into the group's expression. Nested groups are parsed recursively.
#include "lang/kyrLangParse.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"

namespace kyr {
namespace {

constexpr int kMaxFields = 99;
// Rule texts come from routing data; this bounds the recursion a hostile text could cause.
constexpr int kMaxDepth = 200;

void freeIdentifier(void* text) { kyrFree(text); }

bool isArgumentToken(const Token* tok) {
  return tok->type == TOKEN_LITERAL || tok->type == TOKEN_SUBEXPRESSION;
}

bool ranOut(const Token* tok) { return tok == nullptr || tok->type == TOKEN_EOF; }

class GroupParser {
 public:
  GroupParser(Language* lang, Tokenizer* t, int depth, ExpressionType type, void* passback)
      : lang_(lang), t_(t), depth_(depth), type_(type), passback_(passback) {}
  ~GroupParser() { kyrListDestroyDbg(items_); }
  GroupParser(const GroupParser&) = delete;
  GroupParser& operator=(const GroupParser&) = delete;

  Expression* run();

 private:
  ExpressionOrigin origin() const {
    return {lang_, passback_, depth_, tokenGetPosition(current_), tokenGetString(current_)};
  }
  void error(const char* message, int pos) {
    syntaxError(t_, message, pos);
    tokenizerPrintErrorPosition(stderr, t_);
  }
  void errorAt(const char* message, const Token* tok) {
    error(message, tok != nullptr ? tok->position
                                  : static_cast<int>(strlen(tokenizerGetExpressionString(t_))));
  }
  void ensureItems() {
    if (items_ == nullptr) items_ = kyrListCreateDbg(expressionDestroy);
  }

  void shift();
  void word();
  bool readArgumentList(Operand* operand);
  bool readNamedArgument(Operand* operand, const Token* name, std::vector<char*>& slots);
  void comma();
  Expression* entryToExpression(ElementEntry& entry, ExpressionType type);
  Expression* finish();

  Language* lang_;
  Tokenizer* t_;
  int depth_;
  ExpressionType type_;
  void* passback_;
  ElementStack stack_;
  KyrList* items_ = nullptr;  // finished list items, of Expression
  bool reduced_ = false;      // a reduction happened somewhere in this group
  bool done_ = false;
  Token* current_ = nullptr;  // invalid once a syntax error has freed the tokens
};

Expression* GroupParser::run() {
  while (!done_ && !tokenizerIsError(t_)) {
    if (!tokenizerHasMoreTokens(t_)) {
      error("INTERNAL KYR_ERROR - Ran out of tokens before EOF",
            static_cast<int>(strlen(tokenizerGetExpressionString(t_))));
      break;
    }
    current_ = tokenizerConsumeNextToken(t_);
    shift();
    if (tokenizerIsError(t_)) break;
    if (langReduceCompletely(lang_, stack_, origin())) reduced_ = true;
    if (current_->type == TOKEN_COMMA) comma();
  }
  if (tokenizerIsError(t_)) return nullptr;
  return finish();
}

void GroupParser::shift() {
  const char* text = current_->string;
  switch (current_->type) {
    case TOKEN_EOF:
      if (depth_ > 0) {
        errorAt("Expecting right parentheses", current_);
      } else {
        done_ = true;
      }
      break;
    case TOKEN_INTEGER:
      stack_.pushExpression(integerConstantCreate(atoi(text), origin()));  // no overflow check
      break;
    case TOKEN_LONG:
      stack_.pushExpression(longConstantCreate(strtol(text, nullptr, 10), origin()));
      break;
    case TOKEN_LITERAL:
      stack_.pushExpression(stringConstantCreate(text, origin()));
      break;
    case TOKEN_LT_PAREN:
      if (depth_ >= kMaxDepth) {
        errorAt("Too many nested parentheses", current_);
      } else if (Expression* group = langParse(lang_, t_, depth_ + 1, EXPR_LIST, passback_)) {
        stack_.pushExpression(group);
      }
      break;
    case TOKEN_RT_PAREN:
      if (depth_ == 0) {
        errorAt("Unmatched right parentheses", current_);
        break;
      }
      done_ = true;
      // A group in which nothing was reduced is a list, even of one element.
      if (!reduced_) ensureItems();
      break;
    case TOKEN_COMMA:
      break;
    case TOKEN_SUBEXPRESSION:
      word();
      break;
    default:
      errorAt("Unrecognized token", current_);
  }
}

// A word is an operand reference (with its arguments) or a keyword of some operator.
void GroupParser::word() {
  char* copy = kyrStrdup(current_->string);
  const char* separators = lang_->fieldSeparator != nullptr ? lang_->fieldSeparator : "";
  char* fields[kMaxFields];
  int numFields = 0;
  char* last = nullptr;
  for (char* f = kyrStrtok(copy, separators, &last); f != nullptr;
       f = kyrStrtok(nullptr, separators, &last)) {
    if (numFields == kMaxFields) {
      errorAt("Too many fields in this expression token.", current_);
      kyrFree(copy);
      return;
    }
    fields[numFields++] = f;
  }
  Operand* operand = numFields > 0 ? langFindOperand(lang_, fields[0]) : nullptr;
  if (operand == nullptr) {
    if (langIsKeyword(lang_, current_->string)) {
      stack_.push(eet_Identifier, freeIdentifier, kyrStrdup(current_->string));
    } else {
      errorAt("Identifier is unknown to language ", current_);
    }
  } else if (numFields > 1) {  // dollar form: the fields after the name are the arguments
    if (numFields - 1 < operand->numFormalArgs) {
      errorAt("Missing arguments for operand.", current_);
    } else if (numFields - 1 > operand->numFormalArgs) {
      errorAt("Too many arguments for operand.", current_);
    } else {
      stack_.push(eet_OperandInstanceInfo, operandInstanceInfoFree,
                  operandInstanceInfoCreate(operand, numFields - 1, fields + 1));
    }
  } else if (operand->numFormalArgs == 0) {
    stack_.push(eet_OperandInstanceInfo, operandInstanceInfoFree,
                operandInstanceInfoCreate(operand, 0, nullptr));
  } else {
    readArgumentList(operand);
  }
  kyrFree(copy);
}

// "(" then up to numFormalArgs arguments, all positional or all named, then ")".
bool GroupParser::readArgumentList(Operand* operand) {
  Token* open = tokenizerPeekNextToken(t_);
  if (tokenGetType(open) != TOKEN_LT_PAREN) {
    errorAt("Missing arguments", open);
    return false;
  }
  tokenizerConsumeNextToken(t_);
  enum { NONE, POSITIONAL, NAMED } form = NONE;
  std::vector<char*> slots(static_cast<size_t>(operand->numFormalArgs), nullptr);
  int written = 0;
  bool closed = false;
  bool afterComma = false;
  for (int i = 0; i < operand->numFormalArgs && !closed; ++i) {
    Token* tok = tokenizerConsumeNextToken(t_);
    if (ranOut(tok)) {
      errorAt("Missing right parenthesis in argument list: ", tok);
      return false;
    }
    if (tok->type == TOKEN_RT_PAREN) {
      if (afterComma) {
        errorAt("Missing argument after comma", tok);
        return false;
      }
      closed = true;
      break;
    }
    if (!isArgumentToken(tok)) {
      errorAt("Invalid argument list", tok);
      return false;
    }
    Token* next = tokenizerPeekNextToken(t_);
    if (ranOut(next)) {
      errorAt("Unclosed argument list: ", next);
      return false;
    }
    bool positional = next->type == TOKEN_COMMA || next->type == TOKEN_RT_PAREN;
    if (form != NONE && (form == POSITIONAL) != positional) {
      errorAt("Mixed format argument lists are not allowed", tok);
      return false;
    }
    form = positional ? POSITIONAL : NAMED;
    if (positional) {
      slots[static_cast<size_t>(written)] = tok->string;
    } else {
      if (!readNamedArgument(operand, tok, slots)) return false;
      next = tokenizerPeekNextToken(t_);
      if (ranOut(next)) {
        errorAt("Unexpected end of argument list - missing right parenthesis", next);
        return false;
      }
      if (next->type != TOKEN_COMMA && next->type != TOKEN_RT_PAREN) {
        errorAt("Expecting a comma", next);
        return false;
      }
    }
    ++written;
    tokenizerConsumeNextToken(t_);
    closed = next->type == TOKEN_RT_PAREN;
    afterComma = !closed;
  }
  if (!closed) {
    errorAt("Expression has no end", tokenizerPeekNextToken(t_));
    return false;
  }
  // Deliberately the first `written` slots: a named argument for a later slot while an earlier
  // one stays empty is dropped.
  stack_.push(eet_OperandInstanceInfo, operandInstanceInfoFree,
              operandInstanceInfoCreate(operand, written, slots.data()));
  return true;
}

bool GroupParser::readNamedArgument(Operand* operand, const Token* name,
                                    std::vector<char*>& slots) {
  Token* equals = tokenizerConsumeNextToken(t_);
  if (equals->type != TOKEN_SUBEXPRESSION || equals->string[0] != '=') {
    errorAt("Expecting = in expression", equals);
    return false;
  }
  Token* value = tokenizerConsumeNextToken(t_);
  if (ranOut(value)) {
    errorAt("Missing right-hand side to = in expression", value);
    return false;
  }
  if (!isArgumentToken(value)) {
    errorAt("Invalid right-hand side in argument list", value);
    return false;
  }
  int index = operandFindFormalArg(operand, name->string);
  if (index < 0) {
    errorAt("Unrecognized argument name.", name);
    return false;
  }
  slots[static_cast<size_t>(index)] = value->string;
  return true;
}

// A comma closes one list item: the stack must have been reduced to exactly one entry.
void GroupParser::comma() {
  if (stack_.size() != 1) {
    errorAt("Unresolved list element", current_);
    return;
  }
  Expression* item = entryToExpression(stack_.at(0), EXPR_UNKNOWN);
  stack_.truncate(0);
  if (item == nullptr) {
    errorAt("Empty expression before comma", current_);
    return;
  }
  ensureItems();
  kyrListAddTail(items_, item);
}

Expression* GroupParser::entryToExpression(ElementEntry& entry, ExpressionType type) {
  switch (entry.elementType) {
    case eet_Expression: {
      auto* expr = static_cast<Expression*>(entry.object);
      entry.object = nullptr;
      return expr;
    }
    case eet_OperandInstanceInfo: {
      auto* info = static_cast<OperandInstanceInfo*>(entry.object);
      return operandExpressionCreate(info->operand, type, info->numActualArguments,
                                     info->actualArguments, origin());
    }
    case eet_Identifier:
      return nullptr;
    default:
      langReportError("kyrLanguage",
                      "Did not understand what type of element this was, so can't make an "
                      "expression. elementType=%x\n",
                      static_cast<unsigned>(entry.elementType));
      return nullptr;
  }
}

// The common type of the items, or EXPR_UNKNOWN when they differ or there are none.
ExpressionType homogeneousType(const KyrList* items) {
  ExpressionType type = EXPR_UNKNOWN;
  for (KyrListEle* e = kyrListGetHead(items); e != nullptr; e = kyrListGetNext(e)) {
    ExpressionType t = expressionGetType(static_cast<Expression*>(kyrListEleGetObject(e)));
    if (e != kyrListGetHead(items) && t != type) return EXPR_UNKNOWN;
    type = t;
  }
  return type;
}

Expression* GroupParser::finish() {
  if (items_ != nullptr && reduced_) {
    error("Found an operator when expecting a list.", 0);
    fprintf(stderr, " Syntax error: Found an operator when expecting a list.\n");
    return nullptr;
  }
  Expression* result = nullptr;
  if (stack_.size() == 1) {
    result = entryToExpression(stack_.at(0), type_);
  } else {
    fprintf(stderr, "langGetExpression returned NULL; Unable to reduce expression. %d elements.\n",
            stack_.size());
  }
  stack_.truncate(0);
  if (items_ == nullptr) return result;
  if (result != nullptr) kyrListAddTail(items_, result);
  if (homogeneousType(items_) == EXPR_UNKNOWN) {
    error("List types must be homogeneous.", 0);
    return nullptr;
  }
  Expression* list = listExpressionCreate(items_, origin());
  items_ = nullptr;
  return list;
}

}  // namespace

const char* elementEntryTypeToString(int type) {
  switch (type) {
    case eet_OperandInstanceInfo:
      return "eet_OperandInstanceInfo";
    case eet_Identifier:
      return "eet_Identifier";
    case eet_Expression:
      return "eet_Expression";
    default:
      return "eet_Unknown";
  }
}

Expression* langParse(Language* lang, Tokenizer* t, int depth, ExpressionType type,
                      void* passback) {
  if (lang == nullptr || t == nullptr) return nullptr;
  GroupParser parser(lang, t, depth, type, passback);
  return parser.run();
}

}  // namespace kyr
