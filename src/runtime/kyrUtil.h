// String helpers for the slash-separated object names of the routing model and the other small
// text operations the library repeats. New strings are counted copies (kyrFree) unless a
// function says "plain" (free).
#pragma once

namespace kyr {

int kyrStrCmpIgnoreCase(const char* a, const char* b);
char* kyrStringCat(char* orgStr, const char* suffx);
char* kyrStrJoin(const char* str1, const char* str2);
int kyrIndexOfChar(const char* orgStr, char c);
int kyrIndexOfString(const char* orgStr, const char* s);
bool kyrStartsWith(const char* str, const char* prefix);
bool kyrEndsWith(const char* str, const char* suffix);
char* kyrSubstring(const char* orgStr, int beginIdx, int endIdx);
char* kyrSubstrSuffix(const char* orgStr, int begin);
// Null for a null string or a null or empty delimiter.
char** kyrStrSplit(const char* str, const char* delimiter);
void kyrFreeStrSplitArray(char** array);
char* kyrStrtok(char* str, const char* sep, char** last);
void kyrReplaceStr(char** location, const char* newValue);
// The same for counted strings (kyrStrdup): the copy is made before the old text is released,
// so a string may be replaced by (a part of) itself.
void kyrReplaceCountedStr(char** location, const char* newValue);

// The text, or "null" for a missing one: how diagnostics print an absent value.
inline const char* kyrNullText(const char* s) { return s != nullptr ? s : "null"; }
char* kyrPathToName(const char* path);  // plain copy
const char* kyrStrSuffix(const char* str, const char* delimiter);
char* kyrStrPrefix(const char* str, const char* delimiter);
char* kyrGetParentName(const char* name);
char* kyrNameGetType(const char* fullName);
char* kyrNameGetValue(const char* fullName, bool asis);
char* kyrHackGetParentName(const char* fullName);
char* kyrToString(int num);

}  // namespace kyr
