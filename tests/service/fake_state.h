// Shared by the fakes of the four layers: their state, and the scope object that each faked
// function holds.
#ifndef TESTS_SERVICE_FAKE_STATE_H
#define TESTS_SERVICE_FAKE_STATE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "fakes.h"
#include "memory.h"

namespace fakes
{

struct Rule
{
    std::string strFunction;
    unsigned int ulNth;  // from 1
    std::optional<unsigned int> ulCode;
    std::function<void()> action;
    unsigned int ulSeen = 0;
};

struct Block
{
    unsigned int ulNumber;
    size_t ulSize;
};

struct Worker
{
    WorkerMode eMode = WorkerMode::Recorded;
    OSAK_THREAD_PROC pfnEntry = nullptr;
    std::thread thread;
    std::mutex mutex;
    std::condition_variable changed;
    bool bMayStart = false;
    bool bIdle = false;
    bool bEnded = false;
    bool bFree = false;  // idle passes no longer wait for a step
    unsigned int ulSteps = 0;
};

struct Secret
{
    std::string strText;
    unsigned int ulSeen = 0;
    std::set<const char*> setPlaces;
};

// All of the fakes' state that a reset clears.
struct Values
{
    std::vector<std::string> vecTrace;
    std::vector<LogRecord> vecLog;
    std::vector<std::string> vecMisuses;
    std::vector<Rule> vecRules;
    std::map<std::string, unsigned int> mapCalls;
    std::map<const void*, std::string> mapNames;

    std::set<TRAVEX_FTP_HANDLE> setFtpHandles;
    unsigned int ulFtpHandles = 0;
    ControlParameters control;
    tagTRAVEX_FTP_S_DATA_PARAM stData = {};
    Download download;
    unsigned int ulNextTaskID = 1;

    std::map<void*, Block> mapBlocks;
    std::deque<void*> queReleased;  // kept for a while, as the OS layer does
    unsigned int ulBlocks = 0;
    std::set<void*> setMallocs;
    std::set<const OSAK_MUTEX*> setMutexes;
    std::map<OSAK_TIMER, Timer> mapTimers;
    unsigned int ulTimers = 0;
    unsigned int ulThreads = 0;
    std::shared_ptr<Worker> worker;
    WorkerMode eWorkerMode = WorkerMode::Recorded;

    sockaddr_storage stAddress = {};
    addrinfo stResolved = {};
    unsigned int ulResolved = 0;

    unsigned int ulRandom = 0;
    std::optional<std::string> strUnsealed;
    Secret secret;
};

struct State : Values
{
    std::mutex mutex;
};

State& TheState();

// The state with its lock held.
class LockedState
{
public:
    Values* operator->() const
    {
        return &TheState();
    }

private:
    const std::lock_guard<std::mutex> m_lock{TheState().mutex};
};

// --- Arguments as the trace prints them ---------------------------------------------------------

// Handles are numbers that are never dereferenced: a log record prints the same in every run.
constexpr uintptr_t FTP_BASE = 0xF000;
constexpr uintptr_t THREAD_BASE = 0x7000;
constexpr uintptr_t TIMER_BASE = 0x7100;

template <class Handle>
Handle NumberedHandle(uintptr_t ulBase, unsigned int ulNumber)
{
    return reinterpret_cast<Handle>(ulBase + ulNumber);
}

std::string Argument(const State& state, TRAVEX_FTP_HANDLE hFtp);
std::string Argument(const State& state, OSAK_THREAD hThread);
std::string Argument(const State& state, OSAK_TIMER pTimer);
std::string Argument(const State& state, const void* pPointer);
std::string Argument(const State& state, const char* pszText);

template <class Number, std::enable_if_t<std::is_integral_v<Number>, int> = 0>
std::string Argument(const State&, Number number)
{
    return std::to_string(number);
}

// --- One call -----------------------------------------------------------------------------------

bool Recording();

// A call of a layer's function by the service: counted, compared with the rules, recorded.
class Call
{
public:
    template <class... Arguments>
    explicit Call(const char* pszFunction, const Arguments&... arguments)
    {
        if (Recording())
        {
            Enter(pszFunction);
            std::string strArguments;
            [[maybe_unused]] const char* pszSeparator = "";
            State& state = TheState();
            const std::lock_guard<std::mutex> lock(state.mutex);
            ((strArguments += std::exchange(pszSeparator, ", ") + Argument(state, arguments)), ...);
            Record(state, std::string(pszFunction) + "(" + strArguments + ")");
        }
    }

    // A rule has given the call a code: it is to do nothing else.
    bool Fails() const
    {
        return m_ulCode.has_value();
    }

    unsigned int Code() const
    {
        return m_ulCode.value_or(0);
    }

private:
    void Enter(const char* pszFunction);
    void Record(State& state, std::string strLine) const;

    const memory::Paused m_paused;
    std::optional<unsigned int> m_ulCode;
};

void Misuse(const std::string& strText);

// The source place that a call carries has to be the service's.
void CheckPlace(const char* pszFunction, unsigned int ulLine, const char* pszFile);

// Notes that the watched secret is at this place of the service's memory, or is wiped there.
void SeeSecret(const void* pPlace, size_t ulSize);
void WipeSecrets(const void* pPlace, size_t ulSize);

// Ends the worker thread that is left over, if there is one.
void EndWorker();

}  // namespace fakes

#endif
