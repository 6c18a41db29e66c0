// Fuzz target: the XML reader. The first byte selects the loader:
//   bits 0-1  0: the caller's buffer borrowed, 1: an owned copy, 2: read
//             from a file, 3: all three, which must agree on the result, the
//             message, where reading stopped and the tree
// Every parsed tree is then walked and queried the way the configuration
// readers do.
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/return_codes.h"
#include "common/string_buf.h"
#include "fuzz_support.h"
#include "xml/xml_parser.h"

namespace {

bool IsBlank(unsigned char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Walks the tree without recursion (documents may nest deeply) and checks
// what the readers rely on.
void CheckTree(const XmlElement_Class* root, const unsigned char* doc, size_t size, bool borrowed)
{
    std::vector<const XmlElement_Class*> todo{root};
    while (!todo.empty()) {
        const XmlElement_Class* e = todo.back();
        todo.pop_back();
        FUZZ_CHECK(e->GetName().GetLength() >= 1);
        if (borrowed) {
            FUZZ_CHECK(fuzz::Inside(e->GetName(), doc, size));
            FUZZ_CHECK(fuzz::Inside(e->GetText(), doc, size));
        }
        if (e->GetParent() != nullptr) {
            FUZZ_CHECK(e->GetDepth() == e->GetParent()->GetDepth() + 1);
        }
        const Arr_NameValToken_Class& attrs = e->GetAttributes();
        for (int i = 0; i < attrs.GetCount(); i++) {
            const OneToken_Class& val = attrs.Get(i)->m_Val;
            // A value keeps its quotes.
            FUZZ_CHECK(val.GetLength() >= 2);
            FUZZ_CHECK(val.GetPtr()[0] == val.GetPtr()[val.GetLength() - 1]);
            NameValToken_Class* found = nullptr;
            const OneToken_Class& name = attrs.Get(i)->m_Name;
            FUZZ_CHECK(e->SearchGet_Attribute(reinterpret_cast<const char*>(name.GetPtr()), name.GetLength(), &found) ==
                       SUCCESS);
            FUZZ_CHECK(found != nullptr && found->m_Name.Compare(&name) == SUCCESS);
        }
        if (e->GetContentKind() == XMLELEMENT_TEXT) {
            OneToken_Class cut;
            if (e->Get_CutSpace_ElementString(&cut) == SUCCESS) {
                const unsigned char* p = cut.GetPtr();
                int n = cut.GetLength();
                FUZZ_CHECK(n >= 1 && !IsBlank(p[0]) && !IsBlank(p[n - 1]));
                for (int i = 0; i < n; i++) {
                    FUZZ_CHECK(p[i] != '\r' && p[i] != '\t');
                    FUZZ_CHECK(i == 0 || p[i] != ' ' || p[i - 1] != ' ');
                }
            }
        }
        const Arr_XmlElement_Class& kids = e->GetChildren();
        for (int i = 0; i < kids.GetCount(); i++) {
            const XmlElement_Class* k = kids.Get(i);
            FUZZ_CHECK(k->GetParent() == e);
            // The child is found again by its name, with the same count of
            // namesakes before it.
            const char* name = reinterpret_cast<const char*>(k->GetName().GetPtr());
            int len = k->GetName().GetLength();
            int before = 0;
            for (int j = 0; j < i; j++) {
                before += kids.Get(j)->GetName().Compare(&k->GetName()) == SUCCESS;
            }
            XmlElement_Class* again = nullptr;
            FUZZ_CHECK(e->Get_ChildElement(name, len, before, &again) == SUCCESS && again == k);
            int count = 0;
            FUZZ_CHECK(e->Search_ChildElement(name, len, &count) == SUCCESS && count > before);
            todo.push_back(k);
        }
    }
}

// Loads with the chosen loader and parses; describes the outcome.
std::string Load(int loader, const unsigned char* doc, size_t size)
{
    XmlParser_Class parser;
    int rc = DEBUG_WARNING;
    const int n = static_cast<int>(size);
    if (loader == 0) {
        rc = parser.Construct_BufferPointerCopy(doc, n);
    } else if (loader == 1) {
        rc = parser.Construct_WithMemAlloc_BufferCopy(doc, n);
    } else {
        char path[] = "/tmp/ostrel-xml-fuzz-XXXXXX";
        int fd = mkstemp(path);
        FUZZ_CHECK(fd >= 0);
        FUZZ_CHECK(write(fd, doc, size) == static_cast<ssize_t>(size));
        close(fd);
        rc = parser.Construct_FromFileOpen(path);
        unlink(path);
        if (size == 0) {
            FUZZ_CHECK(rc == CANNOT_FILEOPEN);
            rc = DEBUG_WARNING;  // the in-memory loaders' answer, for the comparison
        }
    }
    std::string out = "load " + std::to_string(rc) + "\n";
    if (rc != SUCCESS) {
        return out;
    }
    rc = parser.ParserMain();
    FUZZ_CHECK(strnlen(parser.GetMessage(), 256) < 256);
    const InFileAddress_Class& at = parser.GetCurrentAddress();
    FUZZ_CHECK(at.GetOffset() >= 0 && at.GetOffset() <= n);
    out += "parse " + std::to_string(rc) + " " + parser.GetMessage() + " @" + std::to_string(at.GetOffset()) + "\n";
    if (parser.GetRootElement() != nullptr) {
        CheckTree(parser.GetRootElement(), doc, size, loader == 0);
        StringBuf_Class dump(8 * n + 4096);
        parser.Output_XMLTree(&dump);
        out += dump.c_str();
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > static_cast<size_t>(XMLPARSER_MAX_DOCSIZE) + 2) {
        return 0;
    }
    const int loader = data[0] & 3;
    // An exactly sized copy of the document: a read past its end is caught.
    std::vector<unsigned char> doc(data + 1, data + size);
    if (loader < 3) {
        Load(loader, doc.data(), doc.size());
        return 0;
    }
    std::string borrowed = Load(0, doc.data(), doc.size());
    std::string copied = Load(1, doc.data(), doc.size());
    std::string fromFile = Load(2, doc.data(), doc.size());
    if (borrowed != copied || borrowed != fromFile) {
        fprintf(stderr, "borrowed:\n%s\ncopied:\n%s\nfile:\n%s\n", borrowed.c_str(), copied.c_str(), fromFile.c_str());
    }
    FUZZ_CHECK(borrowed == copied && borrowed == fromFile);
    return 0;
}
