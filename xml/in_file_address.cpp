#include "xml/in_file_address.h"

#include "common/return_codes.h"

int InFileAddress_Class::Set_Address(int offset, int line, int column, DbPrintf_Class*)
{
    m_nOffset = offset;
    m_nLine = line;
    m_nColumn = column;
    return SUCCESS;
}

int InFileAddress_Class::Copy(const InFileAddress_Class* src, DbPrintf_Class*)
{
    if (src == nullptr) {
        return DEBUG_WARNING;
    }
    m_nOffset = src->m_nOffset;
    m_nLine = src->m_nLine;
    m_nColumn = src->m_nColumn;
    return SUCCESS;
}
