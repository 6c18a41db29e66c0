#ifndef OSTREL_XML_IN_FILE_ADDRESS_H
#define OSTREL_XML_IN_FILE_ADDRESS_H

class DbPrintf_Class;

// A position in a document: byte offset, line and column, all counted from
// 0. A plain value; not thread-safe.
class InFileAddress_Class {
public:
    InFileAddress_Class() = default;
    virtual ~InFileAddress_Class() = default;

    InFileAddress_Class(const InFileAddress_Class&) = default;
    InFileAddress_Class& operator=(const InFileAddress_Class&) = default;

    // Sets all three fields. SUCCESS.
    int Set_Address(int offset, int line, int column, DbPrintf_Class* pDB = nullptr);
    // Copies all three fields from src; DEBUG_WARNING for a null src.
    int Copy(const InFileAddress_Class* src, DbPrintf_Class* pDB = nullptr);

    int GetOffset() const { return m_nOffset; }
    int GetLine() const { return m_nLine; }
    int GetColumn() const { return m_nColumn; }

private:
    int m_nOffset = 0;
    int m_nLine = 0;
    int m_nColumn = 0;
};

#endif
