#include "xml/element_array.h"

#include <stdlib.h>

#include "common/ptr_arr.h"
#include "common/return_codes.h"
#include "xml/xml_element.h"

namespace {
constexpr int ARRAY_STEP = 8;
}

Arr_XmlElement_Class::Arr_XmlElement_Class()
{
    m_ppArr = static_cast<XmlElement_Class**>(calloc(ARRAY_STEP, sizeof(XmlElement_Class*)));
    if (m_ppArr != nullptr) {
        m_nCapacity = ARRAY_STEP;
    }
}

Arr_XmlElement_Class::~Arr_XmlElement_Class()
{
    for (int i = 0; i < m_nCount; i++) {
        delete m_ppArr[i];
    }
    free(m_ppArr);
}

ForTmporary_Arr_XmlElement_Class::~ForTmporary_Arr_XmlElement_Class()
{
    // The elements belong to someone else: hide them from the owning
    // destructor, which then frees only the pointer array.
    m_nCount = 0;
}

XmlElement_Class* Arr_XmlElement_Class::TakeLast()
{
    return m_nCount > 0 ? m_ppArr[--m_nCount] : nullptr;
}

int Arr_XmlElement_Class::Add_XmlElement_Class(XmlElement_Class* elem, DbPrintf_Class*)
{
    if (elem == nullptr) {
        return DEBUG_WARNING;
    }
    if (m_ppArr == nullptr) {
        return MEM_MAP_ERROR;
    }
    if (PtrArr_MakeRoom(&m_ppArr, m_nCount, &m_nCapacity, ARRAY_STEP) != SUCCESS) {
        return MALLOC_ERROR;
    }
    m_ppArr[m_nCount++] = elem;
    return SUCCESS;
}
