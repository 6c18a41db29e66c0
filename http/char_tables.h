#ifndef OSTREL_HTTP_CHAR_TABLES_H
#define OSTREL_HTTP_CHAR_TABLES_H

// Character classes of the HTTP head scanner. Each table has 256 entries
// indexed by the byte value: 1 means the byte may stand in that kind of text,
// 0 that it may not. Every byte of 0x80 and above is 0 in both.
//
// HTTP_TokenChar   method names, protocol names and header names: the HTTP
//                  token set without the backquote (0x60).
// HTTP_URI         request targets and CGI parameter text:
//                  # % & + - . / 0-9 : = ? @ A-Z _ a-z
//
// The tables are constant and may be read from any thread.
extern const unsigned char HTTP_TokenChar[256];
extern const unsigned char HTTP_URI[256];

#endif
