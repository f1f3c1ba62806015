// The OS layer, faked: tracked memory, mutexes, threads, timers, strings, addresses, and usleep.
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "fake_state.h"

using namespace fakes;

// --- Memory -------------------------------------------------------------------------------------

static void* Allocate(const Call& call, size_t ulSize)
{
    void* const pBlock = call.Fails() ? nullptr : __real_malloc(ulSize);
    if (pBlock != nullptr)
    {
        std::memset(pBlock, 0, ulSize);
        const LockedState state;
        state->mapBlocks[pBlock] = Block{++state->ulBlocks, ulSize};
    }
    return pBlock;
}

// Released blocks are not handed out again at once: a stale pointer must not meet a new owner.
static void Release(const char* pszFunction, void* pBlock)
{
    if (pBlock == nullptr)
    {
        return;
    }
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.mutex);
    if (state.mapBlocks.erase(pBlock) == 0)
    {
        lock.unlock();
        Misuse(std::string(pszFunction) + " of a block that is not live");
        return;
    }
    state.queReleased.push_back(pBlock);
    if (state.queReleased.size() > 1024)
    {
        __real_free(state.queReleased.front());
        state.queReleased.pop_front();
    }
}

// The layer's allocations are counted together with the service's own.
extern "C" void* OSAK_MemMallocD(size_t size, unsigned int line, const char* file)
{
    const bool bFails = memory::CountAllocation();
    CheckPlace("OSAK_MemMallocD", line, file);
    const Call call("OSAK_MemMallocD", size);
    return bFails ? nullptr : Allocate(call, size);
}

extern "C" void* OSAK_MemMallocS(size_t size, unsigned int zero, unsigned int line,
                                 const char* file)
{
    const bool bFails = memory::CountAllocation();
    CheckPlace("OSAK_MemMallocS", line, file);
    const Call call("OSAK_MemMallocS", size, zero);
    return bFails ? nullptr : Allocate(call, size);
}

extern "C" void OSAK_MemFreeD(void* block, unsigned int line, const char* file)
{
    CheckPlace("OSAK_MemFreeD", line, file);
    const Call call("OSAK_MemFreeD", static_cast<const void*>(block));
    Release("OSAK_MemFreeD", block);
}

extern "C" void OSAK_MemFreeSetNullD(void** block, unsigned int line, const char* file)
{
    CheckPlace("OSAK_MemFreeSetNullD", line, file);
    const Call call("OSAK_MemFreeSetNullD", static_cast<const void*>(*block));
    Release("OSAK_MemFreeSetNullD", *block);
    *block = nullptr;
}

// malloc and free of the C runtime, as the service calls them: the linker leads them here.
extern "C" void* __wrap_malloc(size_t ulSize)
{
    const bool bFails = memory::CountAllocation();
    const Call call("malloc", ulSize);
    if (bFails || call.Fails())
    {
        return nullptr;
    }
    void* const pBlock = __real_malloc(ulSize);
    const LockedState state;
    state->setMallocs.insert(pBlock);
    return pBlock;
}

extern "C" void __wrap_free(void* pBlock)
{
    if (pBlock != nullptr)
    {
        const Call call("free", static_cast<const void*>(pBlock));
        const LockedState state;
        state->setMallocs.erase(pBlock);
        __real_free(pBlock);
    }
}

// --- Mutexes ------------------------------------------------------------------------------------

// 0 for a live mutex; any other use is a misuse, with the layer's code.
static unsigned int CheckMutex(const Call& call, const char* pszFunction, const OSAK_MUTEX* pMutex)
{
    if (call.Fails() || !Recording())
    {
        return call.Code();
    }
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.mutex);
    if (state.setMutexes.count(pMutex) != 0)
    {
        return OSAK_OK;
    }
    lock.unlock();
    Misuse(std::string(pszFunction) + " of a mutex that is not live");
    return OSAK_ERR_NO_MUTEX;
}

extern "C" unsigned int OSAK_MutexInitRecursive(OSAK_MUTEX* mutex, void* attr)
{
    const Call call("OSAK_MutexInitRecursive", static_cast<const void*>(mutex), attr);
    const LockedState state;
    state->setMutexes.insert(mutex);
    return call.Code();
}

extern "C" unsigned int OSAK_MutexDestroy(OSAK_MUTEX* mutex)
{
    const Call call("OSAK_MutexDestroy", static_cast<const void*>(mutex));
    const unsigned int ulRet = CheckMutex(call, "OSAK_MutexDestroy", mutex);
    const LockedState state;
    state->setMutexes.erase(mutex);
    return ulRet;
}

extern "C" unsigned int OSAK_MutexLock(OSAK_MUTEX* mutex)
{
    const Call call("OSAK_MutexLock", static_cast<const void*>(mutex));
    return CheckMutex(call, "OSAK_MutexLock", mutex);
}

extern "C" unsigned int OSAK_MutexUnLock(OSAK_MUTEX* mutex)
{
    const Call call("OSAK_MutexUnLock", static_cast<const void*>(mutex));
    return CheckMutex(call, "OSAK_MutexUnLock", mutex);
}

// --- Threads ------------------------------------------------------------------------------------

static thread_local Worker* t_pWorker = nullptr;  // the worker that this thread is

static void RunWorker(Worker& worker)
{
    t_pWorker = &worker;
    {
        std::unique_lock<std::mutex> lock(worker.mutex);
        worker.changed.wait(lock, [&] { return worker.bMayStart; });
    }
    (void)worker.pfnEntry();
    const std::lock_guard<std::mutex> lock(worker.mutex);
    worker.bEnded = true;
    worker.changed.notify_all();
}

// One idle pass of the worker: it goes on with the next step, or at once when it is free.
static void PassIdle(Worker& worker)
{
    std::unique_lock<std::mutex> lock(worker.mutex);
    worker.bIdle = true;
    worker.changed.notify_all();
    worker.changed.wait(lock, [&] { return worker.bFree || worker.ulSteps > 0; });
    worker.ulSteps -= worker.bFree ? 0 : 1;
    worker.bIdle = false;
}

static void WaitUntilIdleOrEnded(Worker& worker, std::unique_lock<std::mutex>& lock)
{
    worker.changed.wait(lock,
                        [&] { return worker.bEnded || (worker.bIdle && worker.ulSteps == 0); });
}

static void StartWorker(Worker& worker)
{
    std::unique_lock<std::mutex> lock(worker.mutex);
    worker.bMayStart = true;
    worker.changed.notify_all();
    if (!worker.bFree)
    {
        WaitUntilIdleOrEnded(worker, lock);
    }
}

static void JoinWorkerThread(Worker& worker)
{
    {
        const std::lock_guard<std::mutex> lock(worker.mutex);
        worker.bFree = true;
        worker.bMayStart = true;
        worker.changed.notify_all();
    }
    if (worker.thread.joinable())
    {
        worker.thread.join();
    }
}

static std::shared_ptr<Worker> CurrentWorker()
{
    const LockedState state;
    return state->worker;
}

void fakes::EndWorker()
{
    const std::shared_ptr<Worker> worker = CurrentWorker();
    if (worker)
    {
        JoinWorkerThread(*worker);
    }
}

void fakes::StartLateWorker()
{
    StartWorker(*CurrentWorker());
}

bool fakes::StepWorker()
{
    const std::shared_ptr<Worker> worker = CurrentWorker();
    std::unique_lock<std::mutex> lock(worker->mutex);
    ++worker->ulSteps;
    worker->changed.notify_all();
    WaitUntilIdleOrEnded(*worker, lock);
    return !worker->bEnded;
}

extern "C" unsigned int OSAK_PthreadCreate(OSAK_THREAD* thread, void* attr, OSAK_THREAD_PROC entry,
                                           void* arg)
{
    const Call call("OSAK_PthreadCreate", static_cast<const void*>(thread), attr,
                    reinterpret_cast<const void*>(entry), arg);
    if (call.Fails())
    {
        *thread = nullptr;
        return call.Code();
    }
    const auto worker = std::make_shared<Worker>();
    worker->pfnEntry = entry;
    State& state = TheState();
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        __atomic_store_n(thread, NumberedHandle<OSAK_THREAD>(THREAD_BASE, ++state.ulThreads),
                         __ATOMIC_RELAXED);
        worker->eMode = state.eWorkerMode;
        worker->bFree = worker->eMode == WorkerMode::Free;
        state.worker = worker;
    }
    if (worker->eMode != WorkerMode::Recorded)
    {
        worker->thread = std::thread([worker] { RunWorker(*worker); });
    }
    if (worker->eMode == WorkerMode::Stepped || worker->eMode == WorkerMode::Free)
    {
        StartWorker(*worker);
    }
    return 0;
}

// A recorded worker runs here, on the joining thread, unless the test has run it before. Its run
// flag is 0 by now, so that it ends at once.
extern "C" unsigned int OSAK_PthreadJoin(OSAK_THREAD thread, void** result)
{
    const Call call("OSAK_PthreadJoin", thread, static_cast<const void*>(result));
    const std::shared_ptr<Worker> worker = CurrentWorker();
    if (call.Fails() || !worker)
    {
        return call.Code();
    }
    if (worker->eMode == WorkerMode::Recorded && !std::exchange(worker->bEnded, true))
    {
        (void)worker->pfnEntry();
    }
    JoinWorkerThread(*worker);
    return 0;
}

static void SleepMicroseconds(useconds_t ulMicroseconds)
{
    const timespec stTime = {0, static_cast<long>(ulMicroseconds) * 1000};
    (void)nanosleep(&stTime, nullptr);
}

// Replaces the system's: in an idle pass of the service the tests take control.
extern "C" int usleep(useconds_t ulMicroseconds)
{
    const Call call("usleep", ulMicroseconds);
    if (t_pWorker != nullptr && t_pWorker->eMode != WorkerMode::Free)
    {
        PassIdle(*t_pWorker);
    }
    else
    {
        SleepMicroseconds(ulMicroseconds);
    }
    return 0;
}

// --- Timers -------------------------------------------------------------------------------------

extern "C" OSAK_TIMER OSAK_CreateRelTimerM(OSAK_TIMER_PROC callback, unsigned int mode,
                                           unsigned int line, const char* file)
{
    const bool bFails = memory::CountAllocation();
    CheckPlace("OSAK_CreateRelTimerM", line, file);
    const Call call("OSAK_CreateRelTimerM", reinterpret_cast<const void*>(callback), mode);
    if (bFails || call.Fails())
    {
        return nullptr;
    }
    const LockedState state;
    const auto pTimer = NumberedHandle<OSAK_TIMER>(TIMER_BASE, ++state->ulTimers);
    state->mapTimers[pTimer] = Timer{callback, mode, 0, nullptr};
    return pTimer;
}

extern "C" unsigned int OSAK_StartRelTimer(OSAK_TIMER timer, unsigned int ms, void* param)
{
    const Call call("OSAK_StartRelTimer", timer, ms, static_cast<const void*>(param));
    if (call.Fails())
    {
        return call.Code();
    }
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.mutex);
    const auto it = state.mapTimers.find(timer);
    if (it == state.mapTimers.end())
    {
        lock.unlock();
        Misuse("OSAK_StartRelTimer of a timer that is not live");
        return OSAK_ERR_HANDLE;
    }
    it->second.ulLengthMs = ms;
    it->second.pParam = param;
    return 0;
}

extern "C" unsigned int OSAK_FreeRelTimer(OSAK_TIMER timer)
{
    const Call call("OSAK_FreeRelTimer", timer);
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.mutex);
    if (state.mapTimers.erase(timer) == 0)
    {
        lock.unlock();
        Misuse("OSAK_FreeRelTimer of a timer that is not live");
        return OSAK_ERR_HANDLE;
    }
    return call.Code();
}

// --- Strings ------------------------------------------------------------------------------------

// Recorded with the length that it finds.
extern "C" unsigned int OSAK_StrLen(const char* text)
{
    const size_t ulLength = text == nullptr ? 0 : std::strlen(text);
    SeeSecret(text, ulLength);
    const Call call("OSAK_StrLen", static_cast<const void*>(text), ulLength);
    return static_cast<unsigned int>(ulLength);
}

extern "C" int OSAK_StrCmp(const char* left, const char* right)
{
    const Call call("OSAK_StrCmp", left, right);
    return std::strcmp(left == nullptr ? "" : left, right == nullptr ? "" : right);
}

// --- Addresses ----------------------------------------------------------------------------------

extern "C" int OSAK_Inet_Pton(int family, const char* text, void* dest)
{
    const Call call("OSAK_Inet_Pton", family == AF_INET ? "IPv4" : "IPv6", text);
    return call.Fails() ? static_cast<int>(call.Code()) : inet_pton(family, text, dest);
}

extern "C" unsigned int OSAK_InetAddr(const char* text)
{
    const Call call("OSAK_InetAddr", text);
    return call.Fails() ? call.Code() : inet_addr(text);
}

extern "C" int OSAK_GetAddrInfo(const char* node, const char* service, const addrinfo* hints,
                                addrinfo** result)
{
    const Call call("OSAK_GetAddrInfo", node, service, static_cast<const void*>(hints));
    if (call.Fails())
    {
        return static_cast<int>(call.Code());
    }
    const LockedState state;
    ++state->ulResolved;
    *result = &state->stResolved;
    return 0;
}

extern "C" void OSAK_FreeAddrInfo(addrinfo* result)
{
    const Call call("OSAK_FreeAddrInfo");
    const LockedState state;
    if (result != &state->stResolved || state->ulResolved == 0)
    {
        state->vecMisuses.push_back("OSAK_FreeAddrInfo of something else");
        return;
    }
    --state->ulResolved;
}
