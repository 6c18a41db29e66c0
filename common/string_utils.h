#ifndef OSTREL_COMMON_STRING_UTILS_H
#define OSTREL_COMMON_STRING_UTILS_H

class DbPrintf_Class;

// Checks that text is a decimal number (digits and '-', a '-' accepted
// anywhere) within [min, max]. A text that reaches maxlen without a NUL is
// cut in place (NUL written into text[maxlen-1]) and OVER_CHAR returned.
// Empty text: SHORTAGE_VALUE unless empty_ok is 1, then it counts as 0.
// Results: SUCCESS, SHORTAGE_VALUE, OVER_CHAR, INVALID_CODE, OUT_OF_RANGE.
// The value itself is not handed back.
int digit_check(char* text, int maxlen, long long min, long long max, int empty_ok, DbPrintf_Class* pDB = nullptr);

// The file-name part of a path: the text after the last '/'. No '/' or a
// last '/' at index 0 gives the whole path (so "/abc" yields "/abc"); a
// path ending in '/' gives the whole path and NOTFOUND_ITEM. *name points
// into path.
int GetFileNamePtr(char* path, char** name, int* len, DbPrintf_Class* pDB = nullptr);

#endif
