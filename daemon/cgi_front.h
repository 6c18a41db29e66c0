#ifndef OSTREL_DAEMON_CGI_FRONT_H
#define OSTREL_DAEMON_CGI_FRONT_H

class CGIParamParser_Class;
class DbPrintf_Class;

// CGI front end: the program run by a web server. Each function reads the
// parameters of one request method from the CGI environment (and, for POST,
// standard input), answers the launcher on standard output, and returns a
// code that only the log sees (the process ends with status 0 in any case).
// Main thread only; g_HTTPD_ResponseBuf must exist for the documents to be
// written.

// CONTENT_LENGTH bytes of body from standard input (1..65535).
// INVALID_ARGUMENT for a missing or out-of-range length or a body the
// parser refuses; MALLOC_ERROR when the body cannot be allocated or nothing
// could be read; otherwise what DoCGI_CGICommand returned.
int DoCGI_PostCommand(DbPrintf_Class* pDB = nullptr);

// QUERY_STRING. INVALID_ARGUMENT when it is missing, empty or refused by
// the parser; otherwise SUCCESS, whatever the command's outcome.
int DoCGI_GetCommand(DbPrintf_Class* pDB = nullptr);

// Writes only "Content-type: text/plain\n\n". SUCCESS.
int DoCGI_HeadCommand(DbPrintf_Class* pDB = nullptr);

// Carries out the "Command=" parameter: GetConfigTemplate or StartUp (with
// "Name=" of 2..255 bytes and an optional "NumOfControlPortThread=").
// Values are compared exactly. SUCCESS, or INVALID_ARGUMENT for a missing
// or bad parameter or an unknown command (each answered to the launcher).
int DoCGI_CGICommand(CGIParamParser_Class* params, DbPrintf_Class* pDB = nullptr);

#endif
