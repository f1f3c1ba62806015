// The FTP library, faked: it accepts downloads and keeps what it was given; the test notifies.
#include "fake_state.h"

using namespace fakes;

extern "C" unsigned int TRAVEX_FTP_Init()
{
    return Call("TRAVEX_FTP_Init").Code();
}

extern "C" unsigned int TRAVEX_FTP_UnInit()
{
    return Call("TRAVEX_FTP_UnInit").Code();
}

extern "C" TRAVEX_FTP_HANDLE TRAVEX_FTP_CreateHandle()
{
    const bool bFails = memory::CountAllocation();
    const Call call("TRAVEX_FTP_CreateHandle");
    if (bFails || call.Fails())
    {
        return nullptr;
    }
    const LockedState state;
    const auto hFtp = NumberedHandle<TRAVEX_FTP_HANDLE>(FTP_BASE, ++state->ulFtpHandles);
    state->setFtpHandles.insert(hFtp);
    return hFtp;
}

// The use of a closed handle is a misuse; the library returns a code.
static unsigned int CheckHandle(const Call& call, const char* pszFunction, TRAVEX_FTP_HANDLE hFtp)
{
    if (call.Fails())
    {
        return call.Code();
    }
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.mutex);
    if (state.setFtpHandles.count(hFtp) != 0)
    {
        return TRAVEX_FTP_OK;
    }
    lock.unlock();
    Misuse(std::string(pszFunction) + " with a handle that is not live");
    return TRAVEX_FTP_ERR_HANDLE;
}

extern "C" unsigned int TRAVEX_FTP_CloseHandle(TRAVEX_FTP_HANDLE handle)
{
    const Call call("TRAVEX_FTP_CloseHandle", handle);
    const unsigned int ulRet = CheckHandle(call, "TRAVEX_FTP_CloseHandle", handle);
    const LockedState state;
    state->setFtpHandles.erase(handle);
    return ulRet;
}

extern "C" unsigned int TRAVEX_FTP_SetCtrlParam(TRAVEX_FTP_HANDLE handle,
                                                const tagTRAVEX_FTP_S_CTRL_PARAM* param)
{
    SeeSecret(param->acPassword, sizeof(param->acPassword));
    const Call call("TRAVEX_FTP_SetCtrlParam", handle);
    const unsigned int ulRet = CheckHandle(call, "TRAVEX_FTP_SetCtrlParam", handle);
    const LockedState state;
    state->control.hFtp = handle;
    state->control.stRecord = *param;
    state->control.strTrustText = param->pcFtpCtrlInfo;
    state->control.vecCiphers.assign(param->piCipherList, param->piCipherList + param->ulCipherNum);
    return ulRet;
}

extern "C" unsigned int TRAVEX_FTP_SetDataParam(TRAVEX_FTP_HANDLE handle,
                                                const tagTRAVEX_FTP_S_DATA_PARAM* param)
{
    const Call call("TRAVEX_FTP_SetDataParam", handle);
    const unsigned int ulRet = CheckHandle(call, "TRAVEX_FTP_SetDataParam", handle);
    const LockedState state;
    state->stData = *param;
    return ulRet;
}

// The task id is written through the caller's address, as the notification thread would see it.
extern "C" unsigned int TRAVEX_FTP_AsynDownloadFile(TRAVEX_FTP_HANDLE handle, unsigned int* taskId,
                                                    const char* serverFile, const char* dir,
                                                    const char* localFile,
                                                    TRAVEX_FTP_NOTIFY_CB callback)
{
    const Call call("TRAVEX_FTP_AsynDownloadFile", handle, static_cast<const void*>(taskId),
                    serverFile, dir, localFile, reinterpret_cast<const void*>(callback));
    const unsigned int ulRet = CheckHandle(call, "TRAVEX_FTP_AsynDownloadFile", handle);
    const LockedState state;
    const unsigned int ulTaskID = ulRet == 0 ? state->ulNextTaskID++ : 0;
    if (ulRet == 0)
    {
        __atomic_store_n(taskId, ulTaskID, __ATOMIC_RELAXED);
    }
    state->download = Download{handle, taskId, ulTaskID, serverFile, dir, localFile, callback};
    return ulRet;
}
