#include "camera/client_log.h"

#include <stdarg.h>
#include <stdio.h>

#include "common/debug_log.h"
#include "common/return_codes.h"

bool ClientLog::Given(const void* p, const char* op, const char* arg) const
{
    if (p == nullptr) {
        TimePrint(pDB, level, "[%s::%s()] %s == NULL\n", cls, op, arg);
        return false;
    }
    return true;
}

int ClientLog::Checked(int rc, const char* op, const char* fmt, ...) const
{
    if (rc == SUCCESS) {
        return rc;
    }
    char call[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(call, sizeof call, fmt, ap);
    va_end(ap);
    TimePrint(pDB, level, "[%s::%s()] %s failed ::%d\n", cls, op, call, rc);
    return rc;
}
