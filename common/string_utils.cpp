#include "common/string_utils.h"

#include <stdlib.h>
#include <string.h>

#include "common/return_codes.h"

int digit_check(char* text, int maxlen, long long min, long long max, int empty_ok, DbPrintf_Class* /*pDB*/)
{
    int len = Strnlen(text, maxlen);
    if (len == 0) {
        if (empty_ok != 1) {
            return SHORTAGE_VALUE;
        }
        return (min > 0 || max < 0) ? OUT_OF_RANGE : SUCCESS;
    }
    if (len == maxlen) {
        // No terminator within maxlen: the caller's text is cut in place.
        text[maxlen - 1] = '\0';
        return OVER_CHAR;
    }
    for (int i = 0; i < len; ++i) {
        char c = text[i];
        if (!(c == '-' || (c >= '0' && c <= '9'))) {
            return INVALID_CODE;
        }
    }
    // atoll stops where the number ends, so "1-2" counts as 1.
    long long value = atoll(text);
    if (value < min || value > max) {
        return OUT_OF_RANGE;
    }
    return SUCCESS;
}

int GetFileNamePtr(char* path, char** name, int* len, DbPrintf_Class* /*pDB*/)
{
    if (path == nullptr || name == nullptr || len == nullptr) {
        return DEBUG_WARNING;
    }
    int total = static_cast<int>(strlen(path));
    char* slash = strrchr(path, '/');
    // A '/' only at index 0 leaves the whole path as the name ("/abc" gives
    // "/abc"), and so does the path "/" itself, which is tested here first.
    if (slash == nullptr || slash == path) {
        *name = path;
        *len = total;
        return SUCCESS;
    }
    if (slash[1] == '\0') {
        *name = path;
        *len = total;
        return NOTFOUND_ITEM;
    }
    *name = slash + 1;
    *len = total - static_cast<int>(slash + 1 - path);
    return SUCCESS;
}
