#ifndef OSTREL_CAMERA_CLIENT_LOG_H
#define OSTREL_CAMERA_CLIENT_LOG_H

class DbPrintf_Class;

// The failure lines of the camera-side clients (the camera stream and the
// schedule server): "[<cls>::<op>()] ...", written with TimePrint at the
// level the client's SetLog gave. Made on the stack per call from the
// client's own log settings; holds borrowed pointers only.
struct ClientLog {
    DbPrintf_Class* pDB;
    int level;
    const char* cls;

    // False, with "[<cls>::<op>()] <arg> == NULL" logged, when p is null.
    bool Given(const void* p, const char* op, const char* arg) const;
    // rc as it is; a failure is logged as "[<cls>::<op>()] <call> failed
    // ::<rc>", the call text formatted from fmt and what follows it.
    int Checked(int rc, const char* op, const char* fmt, ...) const __attribute__((format(printf, 4, 5)));
};

#endif
