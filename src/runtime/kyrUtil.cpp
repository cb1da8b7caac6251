// String helpers: comparison, joining, searching, splitting and the slash-separated object-name
// helpers ("/cell/c1/node/n1", where "\/" inside a value is not a separator).
#include "runtime/kyrUtil.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

char* concat(const char* a, const char* b) {
  size_t la = strlen(a);
  size_t lb = strlen(b);
  auto* out = static_cast<char*>(kyrMalloc(la + lb + 1));
  strcpy(out, a);  // NOLINT(clang-analyzer-security.insecureAPI.strcpy): sized just above
  strcpy(out + la, b);
  return out;
}

// Start of the last occurrence of `delim` in `str`, or null (also for an empty delimiter).
const char* lastOccurrence(const char* str, const char* delim) {
  if (delim == nullptr || *delim == '\0') return nullptr;
  const char* last = nullptr;
  for (const char* p = strstr(str, delim); p != nullptr; p = strstr(p + 1, delim)) last = p;
  return last;
}

bool isSeparator(const char* name, const char* p) {
  return *p == '/' && (p == name || p[-1] != '\\');
}

// Index of the second-to-last unescaped "/" in `name`, or -1 when there are fewer than two.
int secondToLastSlash(const char* name) {
  int last = -1;
  int beforeLast = -1;
  for (const char* p = name; *p != '\0'; ++p) {
    if (!isSeparator(name, p)) continue;
    beforeLast = last;
    last = static_cast<int>(p - name);
  }
  return beforeLast;
}

// Length of the parent part of a full name, or -1 when it has none. URI values hold unescaped
// slashes, so a URI object's parent ends where the first "/uri/" begins.
int hackParentLength(const char* fullName) {
  const char* uri = strstr(fullName, "/uri/");
  return uri != nullptr ? static_cast<int>(uri - fullName) : secondToLastSlash(fullName);
}

// The part of a full name after its parent: "/type/value", or null when it does not have that
// shape. `typeEnd` receives the "/" that closes the type. The parent is always the plain one:
// "uri" is also a legal name of a cell, node or application, so the "/uri/" shortcut would
// misread those, and URI names with raw slashes only come from old publishers, whose values
// the reader never takes.
const char* typeAndValue(const char* fullName, const char** typeEnd) {
  if (fullName == nullptr) return nullptr;
  int parentLength = secondToLastSlash(fullName);
  if (parentLength < 0) return nullptr;
  const char* rest = fullName + parentLength;
  if (*rest != '/') return nullptr;
  *typeEnd = strchr(rest + 1, '/');
  return *typeEnd != nullptr ? rest : nullptr;
}

}  // namespace

int kyrStrCmpIgnoreCase(const char* a, const char* b) {
  if (a == nullptr) return b == nullptr ? 0 : 1;
  if (b == nullptr) return -1;
  for (; *a != '\0' && *b != '\0'; ++a, ++b) {
    int ca = tolower(static_cast<unsigned char>(*a));
    int cb = tolower(static_cast<unsigned char>(*b));
    if (ca != cb) return ca < cb ? -1 : 1;
  }
  // Deliberately the longer string sorts first; existing orderings of names depend on it.
  if (*a != '\0') return -1;
  return *b != '\0' ? 1 : 0;
}

char* kyrStringCat(char* orgStr, const char* suffx) {
  if (orgStr == nullptr || suffx == nullptr || *suffx == '\0') return orgStr;
  return concat(orgStr, suffx);
}

char* kyrStrJoin(const char* str1, const char* str2) {
  if (str1 == nullptr) return kyrStrdup(str2);
  if (str2 == nullptr) return kyrStrdup(str1);
  return concat(str1, str2);
}

int kyrIndexOfChar(const char* orgStr, char c) {
  const char* p = orgStr != nullptr ? strchr(orgStr, c) : nullptr;
  return p != nullptr ? static_cast<int>(p - orgStr) : -1;
}

int kyrIndexOfString(const char* orgStr, const char* s) {
  const char* p = orgStr != nullptr && s != nullptr ? strstr(orgStr, s) : nullptr;
  return p != nullptr ? static_cast<int>(p - orgStr) : -1;
}

bool kyrStartsWith(const char* str, const char* prefix) {
  if (str == nullptr || prefix == nullptr) return false;
  size_t n = strlen(prefix);
  return strlen(str) >= n && strncmp(str, prefix, n) == 0;
}

bool kyrEndsWith(const char* str, const char* suffix) {
  if (str == nullptr || suffix == nullptr) return false;
  size_t len = strlen(str);
  size_t n = strlen(suffix);
  return len >= n && strcmp(str + len - n, suffix) == 0;
}

char* kyrSubstring(const char* orgStr, int beginIdx, int endIdx) {
  if (orgStr == nullptr || *orgStr == '\0') return nullptr;
  if (beginIdx < 0 || endIdx < beginIdx || static_cast<size_t>(endIdx) > strlen(orgStr)) {
    return nullptr;
  }
  return kyrStrndup(orgStr + beginIdx, static_cast<size_t>(endIdx - beginIdx));
}

char* kyrSubstrSuffix(const char* orgStr, int begin) {
  if (orgStr == nullptr || begin < 0 || static_cast<size_t>(begin) >= strlen(orgStr)) {
    return nullptr;
  }
  return kyrStrdup(orgStr + begin);
}

char** kyrStrSplit(const char* str, const char* delimiter) {
  if (str == nullptr || delimiter == nullptr || *delimiter == '\0') return nullptr;
  size_t dlen = strlen(delimiter);
  size_t pieces = 0;
  for (const char* p = str; *p != '\0'; ++pieces) {
    const char* d = strstr(p, delimiter);
    p = d != nullptr ? d + dlen : p + strlen(p);
  }
  auto** array = static_cast<char**>(kyrMalloc((pieces + 1) * sizeof(char*)));
  if (array == nullptr) return nullptr;
  const char* p = str;
  for (size_t i = 0; i < pieces; ++i) {
    const char* d = strstr(p, delimiter);
    size_t n = d != nullptr ? static_cast<size_t>(d - p) : strlen(p);
    array[i] = kyrStrndup(p, n);
    p += n + (d != nullptr ? dlen : 0);
  }
  return array;
}

void kyrFreeStrSplitArray(char** array) {
  if (array == nullptr) return;
  for (char** p = array; *p != nullptr; ++p) kyrFree(*p);
  kyrFree(array);
}

char* kyrStrtok(char* str, const char* sep, char** last) {
  char* p = str != nullptr ? str : *last;
  if (p == nullptr) return nullptr;
  p += strspn(p, sep);
  if (*p == '\0') {
    *last = p;
    return nullptr;
  }
  char* end = p + strcspn(p, sep);
  if (*end != '\0') *end++ = '\0';
  *last = end;
  return p;
}

void kyrReplaceStr(char** location, const char* newValue) {
  // Deliberately the plain release, which leaves the counter raised: it is a leak indicator only.
  free(*location);
  *location = newValue != nullptr ? kyrStrdup(newValue) : nullptr;
}

void kyrReplaceCountedStr(char** location, const char* newValue) {
  char* copy = newValue != nullptr ? kyrStrdup(newValue) : nullptr;
  kyrFree(*location);
  *location = copy;
}

char* kyrPathToName(const char* path) {
  if (path == nullptr) return nullptr;
  const char* slash = strrchr(path, '/');
  return strdup(slash != nullptr ? slash + 1 : path);
}

const char* kyrStrSuffix(const char* str, const char* delimiter) {
  if (str == nullptr) return nullptr;
  const char* last = lastOccurrence(str, delimiter);
  return last != nullptr ? last + strlen(delimiter) : str;
}

char* kyrStrPrefix(const char* str, const char* delimiter) {
  if (str == nullptr) return nullptr;
  const char* last = lastOccurrence(str, delimiter);
  if (last == nullptr || last == str) return nullptr;
  return kyrStrndup(str, static_cast<size_t>(last - str));
}

char* kyrGetParentName(const char* name) {
  if (name == nullptr) return nullptr;
  int end = secondToLastSlash(name);
  return end >= 0 ? kyrStrndup(name, static_cast<size_t>(end)) : nullptr;
}

char* kyrNameGetType(const char* fullName) {
  const char* typeEnd = nullptr;
  const char* rest = typeAndValue(fullName, &typeEnd);
  return rest != nullptr ? kyrStrndup(rest + 1, static_cast<size_t>(typeEnd - rest - 1)) : nullptr;
}

char* kyrNameGetValue(const char* fullName, bool asis) {
  const char* typeEnd = nullptr;
  if (typeAndValue(fullName, &typeEnd) == nullptr) return nullptr;
  char* value = kyrStrdup(typeEnd + 1);
  if (asis) return value;
  // Deliberately unpaired: every backslash goes, even one that was itself escaped.
  char* out = value;
  for (const char* in = value; *in != '\0'; ++in) {
    if (*in != '\\') *out++ = *in;
  }
  *out = '\0';
  return value;
}

char* kyrHackGetParentName(const char* fullName) {
  if (fullName == nullptr) return nullptr;
  int end = hackParentLength(fullName);
  return end >= 0 ? kyrStrndup(fullName, static_cast<size_t>(end)) : nullptr;
}

char* kyrToString(int num) {
  auto* out = static_cast<char*>(kyrMalloc(15));
  snprintf(out, 15, "%d", num);
  return out;
}

}  // namespace kyr
