#include "common/figures.h"

#include <time.h>

#include "common/return_codes.h"

namespace {

constexpr int kHttpOk = 200;
constexpr int kHttpUnauthorized = 401;

void count(std::atomic<unsigned long long>& counter)
{
    counter.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

FigureFault FigureFaultOf(int rc, int httpStatus)
{
    switch (rc) {
    case SOCK_TIMEOUT:
        return FAULT_TIMEOUT;
    case SOCK_CONNECT_FAIL:
    case SOCK_READ_FAIL:
    case SOCK_WRITE_FAIL:
    case SOCK_CLOSE:
    case SOCK_SIGPIPE:
        return FAULT_CONNECTION;
    case CAMERA_NOT_LOGIN:
    case CAMERA_LOGIN_FAIL:
        return FAULT_REFUSED_CREDENTIALS;
    default:
        break;
    }
    // The client fails every status other than 200 alike (as a head it
    // cannot use); the status line's code tells a refused login apart.
    if (httpStatus == kHttpUnauthorized)
        return FAULT_REFUSED_CREDENTIALS;
    if (httpStatus > 0 && httpStatus != kHttpOk)
        return FAULT_HTTP_ERROR;
    switch (rc) {
    case HTTP_ACCESS_FAILD:
    case HTTP_INVALID_SYNTAX:
    case HTTP_NONCLOSE_HEADER:
    case HTTP_HEADER_READ_FAILD:
    case HTTP_BODY_READ_FAILD:
    case HTTP_ERR_CONTENTLENGTH:
    case NOTFOUND_PROTOCOLINFO:
    case DATASIZE_LARGE:
        return FAULT_HTTP_ERROR;
    default:
        return FAULT_OTHER;
    }
}

const char* FigureFaultName(int kind)
{
    static const char* const kNames[FAULT_KINDS] = {"refused_credentials", "http_error", "timeout", "connection",
                                                    "other"};
    return kind >= 0 && kind < FAULT_KINDS ? kNames[kind] : "other";
}

long long FiguresNowMono()
{
    // The coarse clock is read from memory the kernel updates every tick
    // (a few milliseconds), without asking the clock source: cheap enough
    // for once a picture, and fine enough for ages shown in tenths.
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000LL + ts.tv_nsec / 1000;
}

long long Figures_Class::PackError(FigurePhase phase, int rc, int httpStatus)
{
    // bit 48: phase; bits 32..47: HTTP status (0..65535); bits 0..31: code.
    const unsigned long long status = static_cast<unsigned long long>(httpStatus) & 0xFFFFULL;
    const unsigned long long code = static_cast<unsigned long long>(static_cast<unsigned int>(rc));
    return static_cast<long long>((static_cast<unsigned long long>(phase & 1) << 48) | (status << 32) | code);
}

void Figures_Class::UnpackError(long long packed, FigurePhase* phase, int* rc, int* httpStatus)
{
    const unsigned long long bits = static_cast<unsigned long long>(packed);
    *phase = ((bits >> 48) & 1) != 0 ? PHASE_STREAM : PHASE_START;
    *httpStatus = static_cast<int>((bits >> 32) & 0xFFFFULL);
    *rc = static_cast<int>(static_cast<unsigned int>(bits & 0xFFFFFFFFULL));
}

void Figures_Class::CameraConnected()
{
    count(cameraConnects);
    cameraStreaming.store(1, std::memory_order_relaxed);
}

void Figures_Class::CameraFailed(FigurePhase phase, int rc, int httpStatus)
{
    const FigureFault kind = FigureFaultOf(rc, httpStatus);
    count(phase == PHASE_START ? startFailures[kind] : streamFailures[kind]);
    lastError.store(PackError(phase, rc, httpStatus), std::memory_order_relaxed);
    lastErrorMono.store(FiguresNowMono(), std::memory_order_relaxed);
    cameraStreaming.store(0, std::memory_order_relaxed);
}

void Figures_Class::Picture(int bytes)
{
    // The camera thread is these fields' only writer: a load and a store
    // each, without the locked read-modify-write of fetch_add.
    pictures.store(pictures.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    pictureBytes.store(pictureBytes.load(std::memory_order_relaxed) + static_cast<unsigned long long>(bytes),
                       std::memory_order_relaxed);
    lastPictureMono.store(FiguresNowMono(), std::memory_order_relaxed);
}

void Figures_Class::Login()
{
    count(logins);
    lastLoginMono.store(FiguresNowMono(), std::memory_order_relaxed);
}

void Figures_Class::StopRequestSent(int rc)
{
    count(stopRequests);
    if (rc != SUCCESS)
        count(stopRequestFailures);
}
