#ifndef OSTREL_CONF_NAME_CHECK_H
#define OSTREL_CONF_NAME_CHECK_H

class DbPrintf_Class;

// Bytes allowed in a daemon name: '.', '0'..'9', 'A'..'Z', '_', 'a'..'z'.
extern const unsigned char PPDName_Char[256];

// SUCCESS when every byte of the name is allowed (an empty name passes),
// FOUND_ILLIGAL_CHAR otherwise, DEBUG_WARNING for null. The daemon checks
// its name before using it in file names.
int PPDNameCheck(const char* name, DbPrintf_Class* pDB = nullptr);

#endif
