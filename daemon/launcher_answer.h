#ifndef OSTREL_DAEMON_LAUNCHER_ANSWER_H
#define OSTREL_DAEMON_LAUNCHER_ANSWER_H

class DbPrintf_Class;
class StringBuf_Class;

// Answers to the launcher. Everything the launcher reads goes to standard
// output as a small CGI answer: header lines ending in a bare "\n", an empty
// line and a <Response> XML document. Main thread only; standard output is
// flushed after each answer so that nothing is left buffered across a fork.

// Writes "Content-Length: <size>\n", "Content-type: text/plain\n\n" and the
// buffer's text. DEBUG_WARNING (nothing written) for a null buffer, else
// SUCCESS.
int HTTPD_Responce(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr);

// The usage text (three lines). SUCCESS.
int OptionPrint(DbPrintf_Class* pDB = nullptr);

// The configuration template answer (a 53-byte body). SUCCESS, or
// DEBUG_WARNING when g_HTTPD_ResponseBuf does not exist.
int OutputBuffer_PPDL2ConfTemplate(DbPrintf_Class* pDB = nullptr);

// The <Response> documents below are written into g_HTTPD_ResponseBuf
// (emptied first) and sent with HTTPD_Responce; each returns what
// HTTPD_Responce returned.

// States Err_InvalidArgument with the comment.
int Answer_InvalidArgument(const char* comment, DbPrintf_Class* pDB = nullptr);
// States Err_InvalidArgument with "<comment>:<value>".
int Answer_InvalidArgumentValue(const char* comment, int value, DbPrintf_Class* pDB = nullptr);
// States Err_InvalidArgument with "Unkown Command '<command>'", the command's
// bytes copied as received (len bytes, not terminated).
int Answer_UnknownCommand(const unsigned char* command, int len, DbPrintf_Class* pDB = nullptr);
// States Err_StartFaild with the comment.
int Answer_StartFailed(const char* comment, DbPrintf_Class* pDB = nullptr);
// States Err_AlreadyWorking.
int Answer_AlreadyWorking(DbPrintf_Class* pDB = nullptr);
// The text as it stands (the daemon composes its own document).
int Answer_Text(const char* text, int len, DbPrintf_Class* pDB = nullptr);

#endif
