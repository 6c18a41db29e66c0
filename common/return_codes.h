#ifndef OSTREL_COMMON_RETURN_CODES_H
#define OSTREL_COMMON_RETURN_CODES_H

// Return codes: every operation of the system reports its outcome as a signed
// 32-bit code. SUCCESS (1) is the only success value; callers compare for
// equality with it. Values are grouped in decimal bands (see
// GetErrGeneralCode). SUCCESS_ACCEPT shares value 1 with SUCCESS and is never
// printed by name.

constexpr int SUCCESS = 1;
constexpr int SUCCESS_DENIED = 2;
constexpr int ERROR_HANDLE = 3;
constexpr int SUCCESS_ACCEPT = 1;
constexpr int ERROR_PROTOCOL = 4;
constexpr int REGISTERED = 11;
constexpr int FULL = 12;
constexpr int NOT_REGSTERED = 13;
constexpr int ACCESSLIMIT_OVER = 14;
constexpr int INVALID_PASSWD = 15;
constexpr int NOT_LOGIN = 16;
constexpr int TIMEOUT = 17;
constexpr int INVALID_ID = 18;
constexpr int NOTINSTALL_COMMAND = 19;
constexpr int NOTCONNECT_ENCODER = 20;
constexpr int ARRAYSIZE_OVER = 21;
constexpr int INVALID_ACCESS = 22;
constexpr int INVALID_CHANNEL_NO = 23;
constexpr int CHANNEL_NO_DATA = 24;
constexpr int NOT_PERMISSION = 28;
constexpr int UNSUPPORTED_PROTOCOL = 101;
constexpr int UNDECLARED_COMMAND = 102;
constexpr int UNDECLARED_PARAM = 103;
constexpr int SHORTAGE_PARAM = 104;
constexpr int SHORTAGE_VALUE = 105;
constexpr int INVALID_VALUE = 106;
constexpr int MULTI_DEFINE_PARAM = 107;
constexpr int OVER_CHAR = 110;
constexpr int OVER_PARAM = 111;
constexpr int NOTFOUND_EQUAL = 112;
constexpr int NOTFOUND_COMMAND = 113;
constexpr int NOTFOUND_PROTOCOLINFO = 114;
constexpr int OUT_OF_RANGE = 115;
constexpr int INVALID_CODE = 116;
constexpr int INVALID_FORMAT = 117;
constexpr int INVALID_ARGUMENT = 1001;
constexpr int INVALID_QUERYSTRING = 1002;
constexpr int INVALID_HTTPMETHOD = 1003;
constexpr int CANNOT_FILEOPEN = 1004;
constexpr int WRITE_FAILED = 1005;
constexpr int READ_FAILED = 1006;
constexpr int SEEK_FAILED = 1007;
constexpr int GET_ENVVALUE_FAILED = 1008;
constexpr int NOTFOUND_ITEM = 1009;
constexpr int NOTFOUND_VALUE = 1010;
constexpr int NOTFOUND_FILE = 1013;
constexpr int NON_ELEMENT = 1011;
constexpr int NO_MATCH_ARGUMENT = 1014;
constexpr int FOUND_DUPLICATION = 1015;
constexpr int STRING_NOT_FOUND = 2001;
constexpr int NOT_FOUND_FREE_BUF = 2100;
constexpr int NOT_FOUND_WRITE_WAIT_BUF = 2101;
constexpr int FOUND_ILLIGAL_CHAR = 1103;
constexpr int END_OF_BUF = 1104;
constexpr int DATA_LARGE_THEN_BUF = 2500;
constexpr int DATASIZE_SHORT = 1110;
constexpr int DATASIZE_LARGE = 1111;
constexpr int NEED_UPDATE = 1200;
constexpr int NON_UPDATE = 1201;
constexpr int SYS_FUNC_ERROR = 2010;
constexpr int SEMAPHORE_ERROR = 1022;
constexpr int MALLOC_ERROR = 2011;
constexpr int MEM_MAP_ERROR = 2012;
constexpr int SOCK_OPEN_FAIL = 2020;
constexpr int SOCK_NOT_IPv4 = 2021;
constexpr int SOCK_TIMEOUT = 2022;
constexpr int SOCK_CONNECT_FAIL = 2023;
constexpr int SOCK_READ_FAIL = 2024;
constexpr int SOCK_WRITE_FAIL = 2025;
constexpr int SOCK_BIND_FAIL = 2026;
constexpr int SOCK_LISTEN_FAIL = 2027;
constexpr int SOCK_INTERRUPT = 2070;
constexpr int SOCK_SIGPIPE = 2071;
constexpr int SOCK_CLOSE = 2072;
constexpr int THREAD_MAKE_FAIL = 2030;
constexpr int THREAD_ALIVE = 2031;
constexpr int HTTP_INVALID_SYNTAX = 2042;
constexpr int HTTP_NONCLOSE_HEADER = 2041;
constexpr int CGIPARAMS_SYNTAX_ERR = 2043;
constexpr int HTTP_HEADER_READ_FAILD = 2044;
constexpr int HTTP_BODY_READ_FAILD = 2045;
constexpr int HTTP_UNSUPPORT_METHOD = 2046;
constexpr int HTTP_ERR_CONTENTLENGTH = 2047;
constexpr int HTTP_CONNECTIONCLOSE = 2048;
constexpr int HTTP_ACCESS_FAILD = 2049;
constexpr int PIPP_SYNTAX_ERROR = 2200;
constexpr int PIPP_NEGATIVE_ANSWER = 2201;
constexpr int UNKNOWN_CAMERA_TYPE = 2300;
constexpr int CAMERA_NOT_LOGIN = 2301;
constexpr int CAMERA_LOGIN_FAIL = 2302;
constexpr int CAMERA_GET_VDATA_FAIL = 2303;
constexpr int CAMERA_SAY_WANT = 2304;
constexpr int CDISK_HEADER_NOTHING = 3000;
constexpr int CDISK_HEADER_ILLEGAL = 3001;
constexpr int CDISK_HEADER_NO_MATCH_TYPE = 3002;
constexpr int CDISK_FS_BROKEN = 3003;
constexpr int CDISK_NEED_RESTORDISK = 3100;
constexpr int CDISK_NO_MERGEDISK = 3101;
constexpr int CDISK_SAME_MERGEDISK = 3102;
constexpr int CDISK_NOT_PERMISSION = 3110;
constexpr int CDISK_BROKEN_MERGEDISK = 3120;
constexpr int CDISK_ILLIGALCHANNEL_ACCESS = 3150;
constexpr int CDISK_DISK_NOT_FREE = 3160;
constexpr int CDISK_LARGEFRAME = 3200;
constexpr int CDISK_WAITLOOP_TIMEOUT = 3300;
constexpr int XMLPARSER_END_OF_FILE = 4000;
constexpr int XMLPARSER_PARSER_ERROR = 4001;
constexpr int CONFIGFILE_PARSER_ERROR = 4100;
constexpr int LOOP_INTERRUPTED = 9000;
constexpr int PROCCESS_MULTIPLEX = 9900;
constexpr int STARTUP_FAILD = 9901;
constexpr int NOT_IMPLEMENTATION = 9996;
constexpr int NOT_INITIALIZE = 9997;
constexpr int ALREADY_INITIALIZE = 9998;
constexpr int DEBUG_WARNING = 9999;

// Writes "[<code>]<NAME>" (or "[<code>]Unknown Return value." for a value
// without a name) into buf with snprintf semantics: the text is cut to
// size-1 characters and always terminated when size > 0. Returns SUCCESS.
int getReturnCodeString(int code, char* buf, int size);

// Folds a detailed code into its general code by inclusive bands:
// 0..10 -> 1 (SUCCESS), 11..100 -> 2 (SUCCESS_DENIED), 101..1000 -> 4
// (ERROR_PROTOCOL), 1001..10000 -> 3 (ERROR_HANDLE), anything else -> -1.
int GetErrGeneralCode(int code);

// Bytes before the first NUL, counting at most max; never reads past max.
// Returns 0 for max <= 0 and max when no NUL lies within it.
int Strnlen(const char* p, int max);
int Strnlen(const unsigned char* p, int max);

#endif
