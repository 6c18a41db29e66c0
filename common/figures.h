#ifndef OSTREL_COMMON_FIGURES_H
#define OSTREL_COMMON_FIGURES_H

#include <atomic>

// The daemon's figures for an operator: counters and a few gauges that the
// camera thread and the control-port threads update as things happen, and
// that the figures writer (daemon/figures_writer.h) copies into a small file
// once a second. Nothing of the system reads them.
//
// Every field is a relaxed atomic and every update is one relaxed
// read-modify-write or store: no lock, no ordering between fields. A reader
// may see one field a moment ahead of another; each single value is whole.
// The picture path pays two additions and one coarse clock read per picture
// (Picture: the camera thread is the only writer of its three fields).
//
// Times are CLOCK_MONOTONIC_COARSE microseconds (0: never), so that an age
// shown to the operator does not jump when the wall clock is set.

// Why a camera connection failed, as an operator tells failures apart.
enum FigureFault : int {
    FAULT_REFUSED_CREDENTIALS = 0,  // the camera refused the user or password
    FAULT_HTTP_ERROR,               // another HTTP status, or an unreadable answer
    FAULT_TIMEOUT,                  // the camera did not answer in time
    FAULT_CONNECTION,               // connection refused or reset
    FAULT_OTHER,                    // anything else (no socket, a local fault)
    FAULT_KINDS
};

// The kind of a camera client failure: rc is its return code, httpStatus the
// status code of the camera's answer head (0 when none was read). Socket
// time-outs and connection faults go by the code alone (the status may be a
// previous answer's); then a 401 answer, CAMERA_NOT_LOGIN and
// CAMERA_LOGIN_FAIL are refused credentials, and any other status but 200 or
// an unreadable answer is an HTTP error.
FigureFault FigureFaultOf(int rc, int httpStatus);

// Short lower-case name of a kind ("refused_credentials", "http_error",
// "timeout", "connection", "other"); "other" for a value out of range.
const char* FigureFaultName(int kind);

// Where a camera failure happened.
enum FigurePhase : int {
    PHASE_START = 0,  // opening the stream (connect, request, answer head)
    PHASE_STREAM = 1  // reading pictures from an open stream
};

class Figures_Class {
public:
    // Camera thread.
    std::atomic<unsigned long long> cameraConnects{0};  // streams opened
    std::atomic<unsigned long long> startFailures[FAULT_KINDS] = {};
    std::atomic<unsigned long long> streamFailures[FAULT_KINDS] = {};
    std::atomic<int> cameraStreaming{0};                 // 1 while a stream is open
    std::atomic<unsigned long long> pictures{0};         // pictures stored in the FIFO
    std::atomic<unsigned long long> pictureBytes{0};
    std::atomic<long long> lastPictureMono{0};
    // The last camera failure, packed by PackError below, and when.
    std::atomic<long long> lastError{0};
    std::atomic<long long> lastErrorMono{0};
    // Post-alarm stop requests to the schedule server, and those that failed.
    std::atomic<unsigned long long> stopRequests{0};
    std::atomic<unsigned long long> stopRequestFailures{0};

    // Control-port threads.
    std::atomic<unsigned long long> picturesOut{0};  // pictures handed to the viewer
    std::atomic<unsigned long long> pictureBytesOut{0};
    std::atomic<unsigned long long> notYet{0};       // picture requests that timed out waiting
    std::atomic<unsigned long long> logins{0};
    std::atomic<long long> lastLoginMono{0};
    std::atomic<unsigned long long> logouts{0};
    std::atomic<unsigned long long> noticeUpdates{0};
    std::atomic<unsigned long long> resetPostterms{0};

    // Camera thread hooks.
    void CameraConnected();
    void CameraDisconnected() { cameraStreaming.store(0, std::memory_order_relaxed); }
    void CameraFailed(FigurePhase phase, int rc, int httpStatus);
    void Picture(int bytes);
    void StopRequestSent(int rc);

    // Control-port thread hooks.
    void PictureOut(int bytes)
    {
        picturesOut.fetch_add(1, std::memory_order_relaxed);
        pictureBytesOut.fetch_add(static_cast<unsigned long long>(bytes), std::memory_order_relaxed);
    }
    void NotYet() { notYet.fetch_add(1, std::memory_order_relaxed); }
    void Login();
    void Logout() { logouts.fetch_add(1, std::memory_order_relaxed); }
    void NoticeUpdate() { noticeUpdates.fetch_add(1, std::memory_order_relaxed); }
    void ResetPostterm() { resetPostterms.fetch_add(1, std::memory_order_relaxed); }

    // One word for the last failure: the return code, the HTTP status and
    // the phase, so that a reader never pairs one failure's code with
    // another's status. 0 means none.
    static long long PackError(FigurePhase phase, int rc, int httpStatus);
    static void UnpackError(long long packed, FigurePhase* phase, int* rc, int* httpStatus);
};

// The process's figures; a C++17 inline variable like the shared words of
// camera/shared_state.h, so every library reaches the one object.
inline Figures_Class g_Figures;

// CLOCK_MONOTONIC_COARSE in microseconds (resolution: the kernel's tick).
long long FiguresNowMono();

#endif
