#ifndef OSTREL_XML_CHAR_TABLES_H
#define OSTREL_XML_CHAR_TABLES_H

// Character classes of the XML reader: 256 entries of 0/1 indexed by the
// byte value. Read-only after static initialisation; safe from any thread.
extern const unsigned char TextFileChar[256];    // bytes a document may hold
extern const unsigned char NameTokenChar1[256];  // first byte of a name
extern const unsigned char NameTokenChar2[256];  // further bytes of a name
// The plain-text table AsciiFile_Char lives with the name=value file reader
// in common/; the XML reader does not consult it.

#endif
