// KyrStringBuffer: appends text, growing by at least doubling so long dumps stay linear. The
// text and the buffer record are counted allocations.
#include "runtime/kyrStringBuffer.h"

#include <algorithm>
#include <cstring>

#include "runtime/kyrLibUtil.h"

namespace kyr {

KyrStringBuffer* sbCreate(int max) {
  auto* sb = static_cast<KyrStringBuffer*>(kyrMalloc(sizeof(KyrStringBuffer)));
  if (sb == nullptr) return nullptr;
  sb->max = max;
  sb->ptr = static_cast<char*>(kyrMalloc(static_cast<size_t>(max) + 1));
  if (sb->ptr == nullptr) {
    kyrFree(sb);
    return nullptr;
  }
  return sb;
}

KyrStringBuffer* sbAdd(KyrStringBuffer* sb, const char* str) {
  if (str == nullptr) return sb;
  int n = static_cast<int>(strlen(str));
  if (sb->max - sb->len < n) {
    int newMax = std::max(2 * sb->max, sb->max + n);
    auto* grown = static_cast<char*>(kyrMalloc(static_cast<size_t>(newMax) + 1));
    memcpy(grown, sb->ptr, static_cast<size_t>(sb->len) + 1);
    kyrFree(sb->ptr);
    sb->ptr = grown;
    sb->max = newMax;
  }
  memcpy(sb->ptr + sb->len, str, static_cast<size_t>(n) + 1);
  sb->len += n;
  return sb;
}

int sbLen(const KyrStringBuffer* sb) { return sb->len; }

const char* sbStr(const KyrStringBuffer* sb) { return sb->ptr; }

void sbDelete(KyrStringBuffer* sb) {
  if (sb == nullptr) return;
  kyrFree(sb->ptr);
  kyrFree(sb);
}

}  // namespace kyr
