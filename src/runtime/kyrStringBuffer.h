// A growable, always-terminated text buffer for building dumps and messages piece by piece.
#pragma once

namespace kyr {

struct KyrStringBuffer {
  int len;    // characters held
  int max;    // capacity without the terminator
  char* ptr;  // the text, always terminated; counted allocation
};

KyrStringBuffer* sbCreate(int max);
KyrStringBuffer* sbAdd(KyrStringBuffer* sb, const char* str);
int sbLen(const KyrStringBuffer* sb);
const char* sbStr(const KyrStringBuffer* sb);
void sbDelete(KyrStringBuffer* sb);

}  // namespace kyr
