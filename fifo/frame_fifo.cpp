#include "fifo/frame_fifo.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/debug_log.h"
#include "common/return_codes.h"

CMFifo g_Fifo;

CMFifo::CMFifo() = default;

CMFifo::~CMFifo()
{
    // Also frees what a failed Setup left behind, which leaves m_nSetup at 0.
    Cleanup();
}

int CMFifo::SetLog(DbPrintf_Class* pDB, int nLevel)
{
    m_pDB = pDB;
    m_nLogLevel = nLevel;
    return SUCCESS;
}

// The opening test of every slot operation: false, after logging the
// operation's own line, when the FIFO is not set up.
bool CMFifo::SetUpOrLog(const char* pszNotSetUpLine)
{
    if (m_nSetup.load(std::memory_order_relaxed) != 0) {
        return true;
    }
    TimePrint(m_pDB, m_nLogLevel, "%s", pszNotSetUpLine);
    return false;
}

int CMFifo::Setup(int nLengthFifo, int nLengthWriteOnlyZone, int nBufferSizeVideo, int nBufferSizeOption,
                  int /*nChannel*/)
{
    if (m_nSetup.load(std::memory_order_relaxed) != 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::Setup] m_nSetup != 0\n");
        return ALREADY_INITIALIZE;
    }
    if (nLengthFifo < 1) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::Setup] nLength_Fifo(%d) < 1\n", nLengthFifo);
        return INVALID_ARGUMENT;
    }
    if (nLengthWriteOnlyZone < 2) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::Setup] nLength_WriteOnlyZone(%d) <= 1\n", nLengthWriteOnlyZone);
        return INVALID_ARGUMENT;
    }
    if (nBufferSizeVideo < 1) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::Setup] nBufferSize_Video(%d) <= 0\n", nBufferSizeVideo);
        return INVALID_ARGUMENT;
    }
    if (nBufferSizeOption < 1) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::Setup] nBufferSize_Option(%d) <= 0\n", nBufferSizeOption);
        return INVALID_ARGUMENT;
    }

    // A failed Setup whose caller skipped Cleanup must not leak its slots.
    if (m_ppFifo != nullptr) {
        DbPrintf_Class* pDB = m_pDB;
        int nLevel = m_nLogLevel;
        Cleanup();
        SetLog(pDB, nLevel);
    }

    nLength_Fifo = nLengthFifo;
    nLength_WriteOnlyZone = nLengthWriteOnlyZone;
    m_nBufferSize_Video = nBufferSizeVideo;
    nBufferSize_Option = nBufferSizeOption;
    m_lnDataNo_PublicTop.store(0, std::memory_order_relaxed);
    m_lnDataNo_PublicTail.store(-1, std::memory_order_relaxed);
    m_lnDataNo_Input.store(0, std::memory_order_relaxed);

    const int nSlots = nLength_Fifo + nLength_WriteOnlyZone;
    const int nArrayBytes = static_cast<int>(sizeof(_StrBuffer*)) * nSlots;
    m_ppFifo = static_cast<_StrBuffer**>(calloc(1, nArrayBytes));
    if (m_ppFifo == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::Setup] calloc(1,%d) failed\n", nArrayBytes);
        return SYS_FUNC_ERROR;
    }
    for (int i = 0; i < nSlots; i++) {
        int ret = AllocStrBuffer(&m_ppFifo[i], m_nBufferSize_Video, nBufferSize_Option);
        if (ret != SUCCESS) {
            TimePrint(m_pDB, m_nLogLevel, "[CMFifo::Setup] AllocStrBuffer failed ::%d\n", ret);
            return ret;
        }
    }
    m_nSetup.store(1, std::memory_order_relaxed);
    return SUCCESS;
}

int CMFifo::Cleanup()
{
    if (m_ppFifo != nullptr) {
        const int nSlots = nLength_Fifo + nLength_WriteOnlyZone;
        for (int i = 0; i < nSlots; i++) {
            if (m_ppFifo[i] != nullptr) {
                FreeStrBuffer(&m_ppFifo[i]);
            }
        }
    }
    m_nBufferSize_Video = 0;
    nBufferSize_Option = 0;
    free(m_ppFifo);
    m_ppFifo = nullptr;
    nLength_Fifo = 0;
    nLength_WriteOnlyZone = 0;
    m_nSetup.store(0, std::memory_order_relaxed);
    m_pDB = nullptr;
    return SUCCESS;
}

int CMFifo::AllocStrBuffer(_StrBuffer** pStrbuf, int nBufferSizeVideo, int nBufferSizeOption)
{
    if (pStrbuf == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::AllocStrBuffer] pStrbuf == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (nBufferSizeVideo < 1) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::AllocStrBuffer] nBufferSize_Video(%d) <= 0\n", nBufferSizeVideo);
        return INVALID_ARGUMENT;
    }
    if (nBufferSizeOption < 1) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::AllocStrBuffer] nBufferSize_Option(%d) <= 0\n", nBufferSizeOption);
        return INVALID_ARGUMENT;
    }

    int nFailedSize = 0;
    _StrBuffer* p = static_cast<_StrBuffer*>(calloc(1, sizeof(_StrBuffer)));
    if (p == nullptr) {
        nFailedSize = static_cast<int>(sizeof(_StrBuffer));
        goto error;
    }
    p->pBuffer_Video = static_cast<char*>(calloc(1, nBufferSizeVideo));
    if (p->pBuffer_Video == nullptr) {
        nFailedSize = nBufferSizeVideo;
        goto error;
    }
    p->pBuffer_Option = static_cast<char*>(calloc(1, nBufferSizeOption));
    if (p->pBuffer_Option == nullptr) {
        nFailedSize = nBufferSizeOption;
        goto error;
    }
    *pStrbuf = p;
    return SUCCESS;

error:
    TimePrint(m_pDB, m_nLogLevel, "[CMFifo::AllocStrBuffer] calloc(1,%d) failed\n", nFailedSize);
    if (p != nullptr) {
        free(p->pBuffer_Video);
        free(p);
    }
    return SYS_FUNC_ERROR;
}

int CMFifo::FreeStrBuffer(_StrBuffer** pStrbuf)
{
    if (pStrbuf == nullptr || *pStrbuf == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::FreeStrBuffer] pStrbuf == NULL\n");
        return INVALID_ARGUMENT;
    }
    free((*pStrbuf)->pBuffer_Option);
    free((*pStrbuf)->pBuffer_Video);
    free(*pStrbuf);
    *pStrbuf = nullptr;
    return SUCCESS;
}

int CMFifo::CalcBufferNo(long long lnDataNo) const
{
    const long long nSlots = static_cast<long long>(nLength_Fifo) + nLength_WriteOnlyZone;
    long long r = lnDataNo % nSlots;
    if (r < 0) {
        r += nSlots;
    }
    return static_cast<int>(r);
}

// ---------------------------------------------------------------------------
// Writer side

int CMFifo::ClearVideo()
{
    const int i = CalcBufferNo(m_lnDataNo_Input.load(std::memory_order_relaxed));
    if (m_ppFifo[i] == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::ClearVideo] m_ppFifo[%d] == NULL\n", i);
        return DEBUG_WARNING;
    }
    m_ppFifo[i]->nDataSize_Video = 0;
    return SUCCESS;
}

int CMFifo::ClearOption()
{
    const int i = CalcBufferNo(m_lnDataNo_Input.load(std::memory_order_relaxed));
    if (m_ppFifo[i] == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::ClearOption] m_ppFifo[%d] == NULL\n", i);
        return DEBUG_WARNING;
    }
    m_ppFifo[i]->nDataSize_Option = 0;
    return SUCCESS;
}

int CMFifo::InputDataStart()
{
    if (!SetUpOrLog("[CMFifo::InputDataStart] m_nSetup == 0\n")) {
        return NOT_INITIALIZE;
    }
    int ret = ClearVideo();
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataStart] ClearVideo failed ::%d\n", ret);
    } else {
        ret = ClearOption();
        if (ret != SUCCESS) {
            TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataStart] ClearOption failed ::%d\n", ret);
        }
    }
    return ret;
}

int CMFifo::InputDataCancel()
{
    if (!SetUpOrLog("[CMFifo::InputDataCancel] m_nSetup == 0\n")) {
        return NOT_INITIALIZE;
    }
    int ret = ClearVideo();
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataCancel] ClearVideo failed\n");
    } else {
        ret = ClearOption();
        if (ret != SUCCESS) {
            TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataCancel] ClearOption failed\n");
        }
    }
    return ret;
}

int CMFifo::InputDataGet(char** pBuf, int* nBufSize, int* nDataSize)
{
    if (!SetUpOrLog("[CMFifo::InputDataGet] m_nSetup == 0\n")) {
        return NOT_INITIALIZE;
    }
    if (pBuf == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataGet] pBuf == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (nBufSize == nullptr || nDataSize == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataGet] nBufSize == NULL || nDataSize == NULL\n");
        return INVALID_ARGUMENT;
    }
    const int i = CalcBufferNo(m_lnDataNo_Input.load(std::memory_order_relaxed));
    if (m_ppFifo[i] == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataGet] m_ppFifo[%d] == NULL\n", i);
        return DEBUG_WARNING;
    }
    *pBuf = m_ppFifo[i]->pBuffer_Video;
    *nBufSize = m_nBufferSize_Video;
    *nDataSize = m_ppFifo[i]->nDataSize_Video;
    return SUCCESS;
}

int CMFifo::InputVideo(char* pInData_Video, int nInDataSize_Video)
{
    if (pInData_Video == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputVideo] pInData_Video == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (nInDataSize_Video <= 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputVideo] nInDataSize_Video(%d) <= 0\n", nInDataSize_Video);
        return INVALID_ARGUMENT;
    }
    const int i = CalcBufferNo(m_lnDataNo_Input.load(std::memory_order_relaxed));
    _StrBuffer* pSlot = m_ppFifo[i];
    if (pSlot == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputVideo] m_ppFifo[%d] == NULL\n", i);
        return DEBUG_WARNING;
    }
    // Compared in 64 bits: the sum of two ints may not fit in one.
    const long long lnSum = static_cast<long long>(pSlot->nDataSize_Video) + nInDataSize_Video;
    if (lnSum > m_nBufferSize_Video) {
        // The console line is the ring's own alarm beside the log: a
        // foreground run (-StartUp_NonDeamon) shows it, a forked daemon's
        // standard output is /dev/null. Kept on purpose.
        printf("%lld > %d\n", lnSum, m_nBufferSize_Video);
        TimePrint(m_pDB, m_nLogLevel,
                  "[CMFifo::InputVideo] m_ppFifo[%d]->nDataSize_Video(%d) + nInDataSize_Video(%d) > "
                  "m_nBufferSize_Video(%d)\n",
                  i, pSlot->nDataSize_Video, nInDataSize_Video, m_nBufferSize_Video);
        return DATA_LARGE_THEN_BUF;
    }
    char* pEnd = pSlot->pBuffer_Video + pSlot->nDataSize_Video;
    // The camera client reads the picture straight into the slot through the
    // InputDataGet pointer; recognising that address keeps the writer's path
    // copy-free.
    if (pInData_Video != pEnd) {
        memmove(pEnd, pInData_Video, nInDataSize_Video);
    }
    pSlot->nDataSize_Video += nInDataSize_Video;
    return SUCCESS;
}

int CMFifo::InputData(char* pInData_Video, int nInDataSize_Video)
{
    if (!SetUpOrLog("[CMFifo::InputData] m_nSetup == 0\n")) {
        return NOT_INITIALIZE;
    }
    if (pInData_Video == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputData] pInData_Video == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (nInDataSize_Video <= 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputData] nInDataSize_Video(%d) <= 0\n", nInDataSize_Video);
        return INVALID_ARGUMENT;
    }
    const int ret = InputVideo(pInData_Video, nInDataSize_Video);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputData] InputVideo failed ::%d\n", ret);
    }
    return ret;
}

int CMFifo::DeleteVideo(int nInDeleteSize_Video)
{
    if (nInDeleteSize_Video <= 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::DeleteVideo] nInDeleteSize_Video(%d) <= 0\n", nInDeleteSize_Video);
        return INVALID_ARGUMENT;
    }
    const int i = CalcBufferNo(m_lnDataNo_Input.load(std::memory_order_relaxed));
    _StrBuffer* pSlot = m_ppFifo[i];
    if (pSlot == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::DeleteVideo] m_ppFifo[%d] == NULL\n", i);
        return DEBUG_WARNING;
    }
    if (pSlot->nDataSize_Video <= nInDeleteSize_Video) {
        // Console line beside the log, as in InputVideo.
        printf("%d <= %d\n", pSlot->nDataSize_Video, nInDeleteSize_Video);
        TimePrint(m_pDB, m_nLogLevel,
                  "[CMFifo::DeleteVideo] m_ppFifo[%d]->nDataSize_Video(%d) <= "
                  "nInDeleteSize_Video(%d)\n",
                  i, pSlot->nDataSize_Video, nInDeleteSize_Video);
        return INVALID_ARGUMENT;
    }
    pSlot->nDataSize_Video -= nInDeleteSize_Video;
    return SUCCESS;
}

int CMFifo::InputDataDelete(int nDeleteSize)
{
    if (!SetUpOrLog("[CMFifo::InputDataDelete] m_nSetup == 0\n")) {
        return NOT_INITIALIZE;
    }
    if (nDeleteSize <= 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataDelete] nDeleteSize(%d) <= 0\n", nDeleteSize);
        return INVALID_ARGUMENT;
    }
    const int ret = DeleteVideo(nDeleteSize);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataDelete] DeleteVideo(nDeleteSize %d) failed ::%d\n",
                  nDeleteSize, ret);
    }
    return ret;
}

int CMFifo::InputOption(char* pInData_Option, int nInDataSize_Option)
{
    if (pInData_Option == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputOption] pInData_Option == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (nInDataSize_Option <= 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputOption] nInDataSize_Option(%d) <= 0\n", nInDataSize_Option);
        return INVALID_ARGUMENT;
    }
    const int i = CalcBufferNo(m_lnDataNo_Input.load(std::memory_order_relaxed));
    _StrBuffer* pSlot = m_ppFifo[i];
    if (pSlot == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputOption] m_ppFifo[%d] == NULL\n", i);
        return DEBUG_WARNING;
    }
    const long long lnSum = static_cast<long long>(pSlot->nDataSize_Option) + nInDataSize_Option;
    if (lnSum > nBufferSize_Option) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CMFifo::InputOption] m_ppFifo[%d]->nDataSize_Option(%d) + nInDataSize_Option(%d) > "
                  "m_nBufferSize_Option(%d)\n",
                  i, pSlot->nDataSize_Option, nInDataSize_Option, nBufferSize_Option);
        return DATA_LARGE_THEN_BUF;
    }
    memmove(pSlot->pBuffer_Option + pSlot->nDataSize_Option, pInData_Option, nInDataSize_Option);
    pSlot->nDataSize_Option += nInDataSize_Option;
    return SUCCESS;
}

int CMFifo::InputDataFinish(char* pInData_Option, int nInDataSize_Option)
{
    if (!SetUpOrLog("[CMFifo::InputDataFinish] m_nSetup == 0\n")) {
        return NOT_INITIALIZE;
    }
    if (pInData_Option == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataFinish] pInData_Option == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (nInDataSize_Option <= 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataFinish] nInDataSize_Option(%d) <= 0\n", nInDataSize_Option);
        return INVALID_ARGUMENT;
    }
    const int ret = InputOption(pInData_Option, nInDataSize_Option);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::InputDataFinish] InputOption failed\n");
        return ret;
    }
    {
        // Publishing under the mutex is what orders the frame bytes written
        // above before any reader that sees the new Tail.
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_lnDataNo_Input.fetch_add(1, std::memory_order_relaxed);
        const long long lnTail = m_lnDataNo_PublicTail.load(std::memory_order_relaxed) + 1;
        m_lnDataNo_PublicTail.store(lnTail, std::memory_order_relaxed);
        if (lnTail - m_lnDataNo_PublicTop.load(std::memory_order_relaxed) + 1 > nLength_Fifo) {
            m_lnDataNo_PublicTop.store(lnTail - nLength_Fifo + 1, std::memory_order_relaxed);
        }
    }
    // Without waiters this is a check of the condition's own word, no
    // system call.
    m_Committed.notify_all();
    return SUCCESS;
}

// ---------------------------------------------------------------------------
// Reader side

bool CMFifo::FrameIntact(long long lnDataNo)
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    const long long nSlots = static_cast<long long>(nLength_Fifo) + nLength_WriteOnlyZone;
    return m_lnDataNo_Input.load(std::memory_order_relaxed) < lnDataNo + nSlots;
}

bool CMFifo::WaitForDataNo(long long lnDataNo, std::chrono::steady_clock::time_point deadline)
{
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Committed.wait_until(lock, deadline,
                                  [&] { return m_lnDataNo_PublicTail.load(std::memory_order_relaxed) >= lnDataNo; });
}

int CMFifo::GetTopTailDataNo(long long* pDataNo_PublicTop, long long* pDataNo_PublicTail)
{
    if (pDataNo_PublicTop == nullptr || pDataNo_PublicTail == nullptr) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CMFifo::GetTopTailDataNo] pDataNo_PublicTop == NULL || pDataNo_PublicTail == "
                  "NULL\n");
        return INVALID_ARGUMENT;
    }
    const long long lnTail = m_lnDataNo_PublicTail.load(std::memory_order_relaxed);
    if (lnTail < 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetTopTailDataNo] m_lnDataNo_PublicTail(%d) < 0\n",
                  static_cast<int>(lnTail));
        return CHANNEL_NO_DATA;
    }
    std::lock_guard<std::mutex> lock(m_Mutex);
    *pDataNo_PublicTop = m_lnDataNo_PublicTop.load(std::memory_order_relaxed);
    *pDataNo_PublicTail = m_lnDataNo_PublicTail.load(std::memory_order_relaxed);
    return SUCCESS;
}

// The body GetData and GetData2 share: chooses the frame nearest to nDataNo
// and hands it out. A given pOutMem_Video gets a copy of the picture
// (GetData); otherwise *ppOutMem_Video lends the slot's buffer (GetData2).
// The option record is copied either way. On a refusal *pFault says why,
// for the caller's log line.
int CMFifo::Deliver(long long nDataNo, char* pOutMem_Video, int nOutMemSize_Video, char** ppOutMem_Video,
                    int* pOutMemSize_Video, char* pOutMem_Option, int nOutMemSize_Option, _StrOutInfo* pOutInfo,
                    DeliveryFault* pFault)
{
    if (m_lnDataNo_PublicTail.load(std::memory_order_relaxed) < 0) {
        return CHANNEL_NO_DATA;
    }
    long long lnDelivered = 0, lnTop = 0, lnTail = 0;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        lnTop = m_lnDataNo_PublicTop.load(std::memory_order_relaxed);
        lnTail = m_lnDataNo_PublicTail.load(std::memory_order_relaxed);
        if (nDataNo < lnTop) {
            lnDelivered = lnTop;
        } else if (nDataNo > lnTail) {
            lnDelivered = lnTail;
        } else {
            lnDelivered = nDataNo;
        }
    }
    // The bytes are read outside the mutex: the write-only zone keeps the
    // writer away from this slot.
    pFault->nSlot = CalcBufferNo(lnDelivered);
    const _StrBuffer* pSlot = m_ppFifo[pFault->nSlot];
    if (pSlot == nullptr) {
        pFault->eKind = DeliveryFault::kSlotMissing;
        return DEBUG_WARNING;
    }
    if (pOutMem_Video != nullptr && pSlot->nDataSize_Video > nOutMemSize_Video) {
        pFault->eKind = DeliveryFault::kVideoTooLarge;
        pFault->nDataSize = pSlot->nDataSize_Video;
        return DATA_LARGE_THEN_BUF;
    }
    if (pSlot->nDataSize_Option > nOutMemSize_Option) {
        pFault->eKind = DeliveryFault::kOptionTooLarge;
        pFault->nDataSize = pSlot->nDataSize_Option;
        return DATA_LARGE_THEN_BUF;
    }
    if (pOutMem_Video != nullptr) {
        memcpy(pOutMem_Video, pSlot->pBuffer_Video, pSlot->nDataSize_Video);
    } else {
        *ppOutMem_Video = pSlot->pBuffer_Video;
        *pOutMemSize_Video = m_nBufferSize_Video;
    }
    memcpy(pOutMem_Option, pSlot->pBuffer_Option, pSlot->nDataSize_Option);
    pOutInfo->lnDataNo = lnDelivered;
    pOutInfo->lnDataNo_PublicTop = lnTop;
    pOutInfo->lnDataNo_PublicTail = lnTail;
    pOutInfo->nDataSize_Video = pSlot->nDataSize_Video;
    pOutInfo->nDataSize_Option = pSlot->nDataSize_Option;
    return SUCCESS;
}

int CMFifo::GetData(long long nDataNo, char* pOutMem_Video, int nOutMemSize_Video, char* pOutMem_Option,
                    int nOutMemSize_Option, _StrOutInfo* pOutInfo)
{
    if (!SetUpOrLog("[CMFifo::GetData] m_nSetup == 0\n")) {
        return NOT_INITIALIZE;
    }
    if (pOutMem_Video == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData] pOutMem_Video == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (nOutMemSize_Video <= 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData] nOutMemSize_Video(%d) <= 0\n", nOutMemSize_Video);
        return INVALID_ARGUMENT;
    }
    if (pOutMem_Option == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData] pOutMem_Option == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (nOutMemSize_Option <= 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData] nOutMemSize_Option(%d) <= 0\n", nOutMemSize_Option);
        return INVALID_ARGUMENT;
    }
    if (pOutInfo == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData] pOutInfo == NULL\n");
        return INVALID_ARGUMENT;
    }
    DeliveryFault f;
    const int ret = Deliver(nDataNo, pOutMem_Video, nOutMemSize_Video, nullptr, nullptr, pOutMem_Option,
                            nOutMemSize_Option, pOutInfo, &f);
    switch (f.eKind) {
    case DeliveryFault::kNone: break;
    case DeliveryFault::kSlotMissing:
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData] m_ppFifo[%d] == NULL\n", f.nSlot);
        break;
    case DeliveryFault::kVideoTooLarge:
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData] m_ppFifo[%d]->nDataSize_Video(%d) > nOutMemSize_Video(%d)\n",
                  f.nSlot, f.nDataSize, nOutMemSize_Video);
        break;
    case DeliveryFault::kOptionTooLarge:
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData] m_ppFifo[%d]->nDataSize_Option(%d) > nOutMemSize_Option(%d)\n",
                  f.nSlot, f.nDataSize, nOutMemSize_Option);
        break;
    }
    return ret;
}

int CMFifo::GetData2(long long nDataNo, char** ppOutMem_Video, int* pOutMemSize_Video, char* pOutMem_Option,
                     int nOutMemSize_Option, _StrOutInfo* pOutInfo)
{
    if (!SetUpOrLog("[CMFifo::GetData2] m_nSetup == 0\n")) {
        return NOT_INITIALIZE;
    }
    if (ppOutMem_Video == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData2] ppOutMem_Video == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (pOutMemSize_Video == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData2] pOutMemSize_Video == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (pOutMem_Option == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData2] pOutMem_Option == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (nOutMemSize_Option <= 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData2] nOutMemSize_Option(%d) <= 0\n", nOutMemSize_Option);
        return INVALID_ARGUMENT;
    }
    if (pOutInfo == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData2] pOutInfo == NULL\n");
        return INVALID_ARGUMENT;
    }
    DeliveryFault f;
    const int ret = Deliver(nDataNo, nullptr, 0, ppOutMem_Video, pOutMemSize_Video, pOutMem_Option, nOutMemSize_Option,
                            pOutInfo, &f);
    switch (f.eKind) {
    case DeliveryFault::kNone:
    case DeliveryFault::kVideoTooLarge:  // nothing is copied, so never
        break;
    case DeliveryFault::kSlotMissing:
        TimePrint(m_pDB, m_nLogLevel, "[CMFifo::GetData2] m_ppFifo[%d] == NULL\n", f.nSlot);
        break;
    case DeliveryFault::kOptionTooLarge:
        TimePrint(m_pDB, m_nLogLevel,
                  "[CMFifo::GetData2] m_ppFifo[%d]->nDataSize_Option(%d) > nOutMemSize_Option(%d)\n", f.nSlot,
                  f.nDataSize, nOutMemSize_Option);
        break;
    }
    return ret;
}
