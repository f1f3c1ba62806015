#include "fakes.h"

#include <cstring>

#include "fake_state.h"

namespace fakes
{

static std::atomic<bool> g_bRecording{true};

State& TheState()
{
    static State* const pState = new State;
    return *pState;
}

bool Recording()
{
    return g_bRecording;
}

void SetRecording(bool bOn)
{
    g_bRecording = bOn;
}

// --- Arguments as the trace prints them ---------------------------------------------------------

std::string Argument(const State& state, const void* pPointer)
{
    if (pPointer == nullptr)
    {
        return "null";
    }
    const auto itName = state.mapNames.find(pPointer);
    if (itName != state.mapNames.end())
    {
        return itName->second;
    }
    const auto itBlock = state.mapBlocks.find(const_cast<void*>(pPointer));
    if (itBlock != state.mapBlocks.end())
    {
        return "block " + std::to_string(itBlock->second.ulNumber);
    }
    return state.setMallocs.count(const_cast<void*>(pPointer)) != 0 ? "malloced" : "local";
}

static std::string HandleName(const char* pszKind, uintptr_t ulBase, const void* pHandle)
{
    return pHandle == nullptr
               ? "null"
               : pszKind + std::to_string(reinterpret_cast<uintptr_t>(pHandle) - ulBase);
}

std::string Argument(const State&, TRAVEX_FTP_HANDLE hFtp)
{
    return HandleName("ftp ", FTP_BASE, hFtp);
}

std::string Argument(const State&, OSAK_THREAD hThread)
{
    return HandleName("thread ", THREAD_BASE, hThread);
}

std::string Argument(const State&, OSAK_TIMER pTimer)
{
    return HandleName("timer ", TIMER_BASE, pTimer);
}

std::string Argument(const State&, const char* pszText)
{
    return pszText == nullptr ? "null" : pszText;
}

// --- One call -----------------------------------------------------------------------------------

// Finds the rules for this call. Actions run without a lock of the fakes, as they use them.
void Call::Enter(const char* pszFunction)
{
    std::vector<std::function<void()>> vecActions;
    {
        const LockedState state;
        ++state->mapCalls[pszFunction];
        for (Rule& rule : state->vecRules)
        {
            if (rule.strFunction != pszFunction || ++rule.ulSeen != rule.ulNth)
            {
                continue;
            }
            m_ulCode = rule.ulCode ? rule.ulCode : m_ulCode;
            if (rule.action)
            {
                vecActions.push_back(rule.action);
            }
        }
    }
    for (const auto& action : vecActions)
    {
        action();
    }
}

void Call::Record(State& state, std::string strLine) const
{
    if (Code() != 0)
    {
        strLine += " = " + std::to_string(static_cast<int>(Code()));
    }
    state.vecTrace.push_back(std::move(strLine));
}

void Misuse(const std::string& strText)
{
    const LockedState state;
    state->vecMisuses.push_back(strText);
}

void CheckPlace(const char* pszFunction, unsigned int ulLine, const char* pszFile)
{
    const memory::Paused paused;
    const std::string strFile = pszFile == nullptr ? "" : pszFile;
    const std::string strUnit = "ftpcorpdirimpl.cpp";
    if (ulLine == 0 || strFile.size() < strUnit.size() ||
        strFile.compare(strFile.size() - strUnit.size(), strUnit.size(), strUnit) != 0)
    {
        Misuse(std::string(pszFunction) + ": wrong source place " + strFile);
    }
}

// --- Secrets ------------------------------------------------------------------------------------

void SeeSecret(const void* pPlace, size_t ulSize)
{
    if (!Recording() || pPlace == nullptr)
    {
        return;
    }
    const memory::Paused paused;
    const LockedState state;
    Secret& secret = state->secret;
    if (!secret.strText.empty() && ulSize >= secret.strText.size() &&
        std::memcmp(pPlace, secret.strText.data(), secret.strText.size()) == 0)
    {
        ++secret.ulSeen;
        secret.setPlaces.insert(static_cast<const char*>(pPlace));
    }
}

void WipeSecrets(const void* pPlace, size_t ulSize)
{
    if (!Recording())
    {
        return;
    }
    const memory::Paused paused;
    const LockedState state;
    Secret& secret = state->secret;
    const char* const pcFrom = static_cast<const char*>(pPlace);
    secret.setPlaces.erase(secret.setPlaces.lower_bound(pcFrom),
                           secret.setPlaces.lower_bound(pcFrom + ulSize));
}

// --- The test's side ----------------------------------------------------------------------------

void Reset()
{
    const memory::Paused paused;
    EndWorker();
    SetLogSink(nullptr);
    {
        State& state = TheState();
        const std::lock_guard<std::mutex> lock(state.mutex);
        for (const auto& [pBlock, block] : state.mapBlocks)
        {
            __real_free(pBlock);
        }
        for (void* const pBlock : state.queReleased)
        {
            __real_free(pBlock);
        }
        static_cast<Values&>(state) = Values{};
    }
    SetResolved(AF_INET, std::string("\xC0\x00\x02\x07", 4));
    SetRecording(true);
}

std::vector<std::string> TakeTrace()
{
    const LockedState state;
    return std::exchange(state->vecTrace, {});
}

std::vector<LogRecord> TakeLog()
{
    const LockedState state;
    return std::exchange(state->vecLog, {});
}

std::vector<std::string> TakeLogged()
{
    std::vector<std::string> vecLogged;
    for (const LogRecord& record : TakeLog())
    {
        vecLogged.push_back(std::to_string(record.ulLevel) + " " + record.strFunction + ": " +
                            record.strText);
    }
    return vecLogged;
}

unsigned int Calls(const std::string& strFunction)
{
    const LockedState state;
    return state->mapCalls[strFunction];
}

std::vector<std::string> TakeMisuses()
{
    const LockedState state;
    return std::exchange(state->vecMisuses, {});
}

void Note(const std::string& strEvent)
{
    const LockedState state;
    state->vecTrace.push_back(strEvent);
}

void NamePointer(const void* pPointer, const std::string& strName)
{
    const LockedState state;
    state->mapNames[pPointer] = strName;
}

static void AddRule(Rule rule)
{
    const LockedState state;
    state->vecRules.push_back(std::move(rule));
}

void FailCall(const std::string& strFunction, unsigned int ulNth, unsigned int ulCode)
{
    AddRule(Rule{strFunction, ulNth, ulCode, nullptr});
}

void OnCall(const std::string& strFunction, unsigned int ulNth, std::function<void()> action)
{
    AddRule(Rule{strFunction, ulNth, std::nullopt, std::move(action)});
}

std::vector<std::string> UnusedRules()
{
    const LockedState state;
    std::vector<std::string> vecUnused;
    for (const Rule& rule : state->vecRules)
    {
        if (rule.ulSeen < rule.ulNth)
        {
            vecUnused.push_back(rule.strFunction + ", call " + std::to_string(rule.ulNth));
        }
    }
    return vecUnused;
}

ControlParameters LastControlParameters()
{
    const LockedState state;
    return state->control;
}

tagTRAVEX_FTP_S_DATA_PARAM LastDataParameters()
{
    const LockedState state;
    return state->stData;
}

Download LastDownload()
{
    const LockedState state;
    return state->download;
}

unsigned int LiveFtpHandles()
{
    const LockedState state;
    return static_cast<unsigned int>(state->setFtpHandles.size());
}

TRAVEX_FTP_HANDLE FtpHandle(unsigned int ulNth)
{
    return NumberedHandle<TRAVEX_FTP_HANDLE>(FTP_BASE, ulNth);
}

void SetWorkerMode(WorkerMode eMode)
{
    const LockedState state;
    state->eWorkerMode = eMode;
}

size_t LiveMemory()
{
    const LockedState state;
    size_t ulBytes = 0;
    for (const auto& [pBlock, block] : state->mapBlocks)
    {
        ulBytes += block.ulSize;
    }
    return ulBytes;
}

bool IsLiveBlock(const void* pBlock)
{
    const LockedState state;
    return state->mapBlocks.count(const_cast<void*>(pBlock)) != 0;
}

Timer LiveTimer()
{
    const LockedState state;
    return state->mapTimers.empty() ? Timer{} : state->mapTimers.begin()->second;
}

unsigned int LiveTimers()
{
    const LockedState state;
    return static_cast<unsigned int>(state->mapTimers.size());
}

void SetResolved(int iFamily, const std::string& strAddressBytes)
{
    const LockedState state;
    state->stAddress = {};
    state->stResolved = {};
    state->stResolved.ai_family = iFamily;
    auto* const pstAddress = reinterpret_cast<char*>(&state->stAddress);
    const size_t ulOffset = strAddressBytes.size() == 4 ? offsetof(sockaddr_in, sin_addr)
                                                        : offsetof(sockaddr_in6, sin6_addr);
    std::memcpy(pstAddress + ulOffset, strAddressBytes.data(), strAddressBytes.size());
    state->stResolved.ai_addr =
        strAddressBytes.empty() ? nullptr : reinterpret_cast<sockaddr*>(&state->stAddress);
}

unsigned int ResolverResultsNotFreed()
{
    const LockedState state;
    return state->ulResolved;
}

void SetUnsealed(const std::string& strBytes)
{
    const LockedState state;
    state->strUnsealed = strBytes;
}

void WatchSecret(const std::string& strSecret)
{
    const LockedState state;
    state->secret = Secret{};
    state->secret.strText = strSecret;
}

unsigned int SecretCopiesSeen()
{
    const LockedState state;
    return state->secret.ulSeen;
}

unsigned int SecretCopiesNotWiped()
{
    const LockedState state;
    return static_cast<unsigned int>(state->secret.setPlaces.size());
}

}  // namespace fakes
