#include "conf/name_check.h"

#include "common/byte_class.h"
#include "common/return_codes.h"

namespace {

// '.', '0'..'9', 'A'..'Z', '_', 'a'..'z'.
constexpr bool ppd_name(int c)
{
    return c == '.' || c == '_' || byte_class::digit(c) || byte_class::letter(c);
}

}  // namespace

const unsigned char PPDName_Char[256] = {OSTREL_BYTE_CLASS(ppd_name)};

int PPDNameCheck(const char* name, DbPrintf_Class*)
{
    if (name == nullptr) {
        return DEBUG_WARNING;
    }
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p != '\0'; p++) {
        if (!PPDName_Char[*p]) {
            return FOUND_ILLIGAL_CHAR;
        }
    }
    return SUCCESS;
}
