#ifndef OSTREL_XML_ELEMENT_ARRAY_H
#define OSTREL_XML_ELEMENT_ARRAY_H

class DbPrintf_Class;
class XmlElement_Class;

// Growable array of element pointers: 8 entries at construction, +8 when
// full. Arr_XmlElement_Class owns its elements: the destructor deletes every
// element below the count. Not thread-safe.
class Arr_XmlElement_Class {
public:
    Arr_XmlElement_Class();
    virtual ~Arr_XmlElement_Class();

    Arr_XmlElement_Class(const Arr_XmlElement_Class&) = delete;
    Arr_XmlElement_Class& operator=(const Arr_XmlElement_Class&) = delete;

    // Appends elem (taking ownership for the owning array). DEBUG_WARNING for
    // a null elem, MEM_MAP_ERROR when the array was never allocated,
    // MALLOC_ERROR when it cannot grow (the element is then not taken).
    int Add_XmlElement_Class(XmlElement_Class* elem, DbPrintf_Class* pDB = nullptr);

    int GetCount() const { return m_nCount; }
    int GetCapacity() const { return m_nCapacity; }
    // Entry i, or null outside 0..count-1.
    XmlElement_Class* Get(int i) const { return (i >= 0 && i < m_nCount) ? m_ppArr[i] : nullptr; }
    // Removes the last entry and hands it (and, for the owning array, its
    // ownership) to the caller; null when the array is empty.
    XmlElement_Class* TakeLast();

protected:
    int m_nCount = 0;
    XmlElement_Class** m_ppArr = nullptr;
    int m_nCapacity = 0;
};

// The same array without ownership: for collecting pointers to elements that
// live in some tree. The destructor frees only the pointer array.
class ForTmporary_Arr_XmlElement_Class : public Arr_XmlElement_Class {
public:
    ForTmporary_Arr_XmlElement_Class() = default;
    ~ForTmporary_Arr_XmlElement_Class() override;
};

#endif
