// The figures the camera and control threads keep: how a camera failure is
// told apart, and the one-word record of the last failure.
#include "common/figures.h"

#include <gtest/gtest.h>

#include "common/return_codes.h"

namespace {

TEST(FigureFault, KindFromCodeAndStatus)
{
    struct Row {
        int rc;
        int status;
        FigureFault kind;
        const char* note;
    } rows[] = {
        {HTTP_INVALID_SYNTAX, 401, FAULT_REFUSED_CREDENTIALS, "a 401 head is refused by the parser"},
        {HTTP_ACCESS_FAILD, 401, FAULT_REFUSED_CREDENTIALS, ""},
        {CAMERA_NOT_LOGIN, 0, FAULT_REFUSED_CREDENTIALS, "the camera said so in the stream"},
        {CAMERA_LOGIN_FAIL, 0, FAULT_REFUSED_CREDENTIALS, ""},
        {HTTP_INVALID_SYNTAX, 404, FAULT_HTTP_ERROR, "no such camera number"},
        {HTTP_INVALID_SYNTAX, 503, FAULT_HTTP_ERROR, ""},
        {HTTP_INVALID_SYNTAX, 0, FAULT_HTTP_ERROR, "a head that is not HTTP"},
        {HTTP_INVALID_SYNTAX, 200, FAULT_HTTP_ERROR, "200 without a usable boundary"},
        {DATASIZE_LARGE, 200, FAULT_HTTP_ERROR, "a part larger than the slot"},
        {SOCK_TIMEOUT, 0, FAULT_TIMEOUT, ""},
        {SOCK_TIMEOUT, 401, FAULT_TIMEOUT, "the status is an earlier answer's"},
        {SOCK_CONNECT_FAIL, 401, FAULT_CONNECTION, "the status is an earlier answer's"},
        {SOCK_READ_FAIL, 0, FAULT_CONNECTION, "reset"},
        {SOCK_CLOSE, 200, FAULT_CONNECTION, "closed mid-stream"},
        {SOCK_OPEN_FAIL, 0, FAULT_OTHER, "no socket"},
        {SYS_FUNC_ERROR, 0, FAULT_OTHER, ""},
    };
    for (const Row& r : rows)
        EXPECT_EQ(FigureFaultOf(r.rc, r.status), r.kind) << r.rc << "/" << r.status << " " << r.note;
    EXPECT_STREQ(FigureFaultName(FAULT_REFUSED_CREDENTIALS), "refused_credentials");
    EXPECT_STREQ(FigureFaultName(FAULT_KINDS), "other");
    EXPECT_STREQ(FigureFaultName(-1), "other");
}

TEST(FigureFault, LastErrorWordKeepsCodeStatusAndPhaseTogether)
{
    struct Row {
        FigurePhase phase;
        int rc;
        int status;
    } rows[] = {
        {PHASE_START, HTTP_INVALID_SYNTAX, 401}, {PHASE_STREAM, SOCK_TIMEOUT, 0},
        {PHASE_START, -1, 65535},                {PHASE_STREAM, 2147483647, 1},
        {PHASE_START, -2147483647 - 1, 0},
    };
    for (const Row& r : rows) {
        FigurePhase phase = PHASE_START;
        int rc = 0;
        int status = 0;
        Figures_Class::UnpackError(Figures_Class::PackError(r.phase, r.rc, r.status), &phase, &rc, &status);
        EXPECT_EQ(phase, r.phase);
        EXPECT_EQ(rc, r.rc);
        EXPECT_EQ(status, r.status);
        EXPECT_NE(Figures_Class::PackError(r.phase, r.rc, r.status), 0) << "0 means no failure";
    }
}

TEST(Figures, FailuresCountByPhaseAndKindAndCloseTheStream)
{
    Figures_Class f;
    f.CameraConnected();
    EXPECT_EQ(f.cameraStreaming.load(), 1);
    f.CameraFailed(PHASE_STREAM, SOCK_TIMEOUT, 0);
    EXPECT_EQ(f.cameraStreaming.load(), 0);
    f.CameraFailed(PHASE_START, HTTP_INVALID_SYNTAX, 401);
    f.CameraFailed(PHASE_START, HTTP_INVALID_SYNTAX, 401);
    EXPECT_EQ(f.streamFailures[FAULT_TIMEOUT].load(), 1u);
    EXPECT_EQ(f.startFailures[FAULT_REFUSED_CREDENTIALS].load(), 2u);
    EXPECT_EQ(f.startFailures[FAULT_TIMEOUT].load(), 0u);
    EXPECT_EQ(f.lastError.load(), Figures_Class::PackError(PHASE_START, HTTP_INVALID_SYNTAX, 401));
    EXPECT_GT(f.lastErrorMono.load(), 0);

    f.StopRequestSent(SUCCESS);
    f.StopRequestSent(SOCK_CONNECT_FAIL);
    EXPECT_EQ(f.stopRequests.load(), 2u);
    EXPECT_EQ(f.stopRequestFailures.load(), 1u);
}

}  // namespace
