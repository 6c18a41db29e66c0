#ifndef OSTREL_COMMON_PTR_ARR_H
#define OSTREL_COMMON_PTR_ARR_H

#include <cstdlib>
#include <cstring>

#include "common/return_codes.h"

// Makes room for one more entry in a growable array of pointers (malloc'd,
// *capacity entries, count of them in use): a full array grows by step
// entries, the new ones zeroed. SUCCESS, or MALLOC_ERROR with the array and
// *capacity untouched. The caller holds whatever lock guards the array.
template <typename T> int PtrArr_MakeRoom(T*** arr, int count, int* capacity, int step)
{
    if (count < *capacity) {
        return SUCCESS;
    }
    T** grown = static_cast<T**>(std::realloc(*arr, sizeof(T*) * static_cast<size_t>(*capacity + step)));
    if (grown == nullptr) {
        return MALLOC_ERROR;
    }
    std::memset(grown + *capacity, 0, sizeof(T*) * static_cast<size_t>(step));
    *arr = grown;
    *capacity += step;
    return SUCCESS;
}

#endif
