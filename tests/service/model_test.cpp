// Random sequences of everything that can happen to the service, against a small model of it: after
// each event all members, the queue, the client's calls and the layers' resources are compared.
//
// CORPDIR_MODEL_SEQUENCES: how many sequences (2,000 by default); CORPDIR_MODEL_SEED: the first
// one's seed, the following ones count up from it. A failure names the seed of its sequence.
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <tuple>

#include "files.h"
#include "service_test.h"

namespace
{

// --- The model ----------------------------------------------------------------------------------

struct Version
{
    bool bExists = false;
    std::string strBytes;
};

// The parameters that the library must have received for a download.
struct Given
{
    std::string strServerFile, strLocalFile, strWorkDir, strUser, strPassword, strAddress;
    unsigned int ulServerType = 0, ulIpType = 0, ulPort = 0, ulVerify = 0;
    std::vector<int> vecCiphers;

    auto Tie() const
    {
        return std::tie(strServerFile, strLocalFile, strWorkDir, strUser, strPassword, strAddress,
                        ulServerType, ulIpType, ulPort, ulVerify, vecCiphers);
    }

    bool operator==(const Given& other) const
    {
        return Tie() == other.Tie();
    }
};

void PrintTo(const Given& given, std::ostream* pStream)
{
    *pStream << testing::PrintToString(given.Tie());
}

// Functions of the layers that may fail at their next call, and the code that they give then.
const std::map<std::string, unsigned int> FAULTS = {{"TRAVEX_FTP_AsynDownloadFile", 20},
                                                    {"TRAVEX_FTP_SetCtrlParam", 5},
                                                    {"TRAVEX_FTP_SetDataParam", 6},
                                                    {"ZEP_CPYPT_Encrypt", 3},
                                                    {"ZEP_CPYPT_Decrypt", 7},
                                                    {"malloc", 1},
                                                    {"OSAK_GetAddrInfo", 8},
                                                    {"OSAK_CreateRelTimerM", 1},
                                                    {"OSAK_StartRelTimer", 9}};

const std::vector<int> DEFAULT_CIPHERS = {0x03000035, 0x0300003C, 0x0300003D};

// The expected state of the service after each event. Faults of the layers are set beforehand.
class Model
{
public:
    enum class Handle
    {
        None,
        Live,
        Closed  // by a failed start
    };
    enum class Mutex
    {
        None,
        Live,
        Released  // by a failed start
    };
    enum class Fault
    {
        None,
        Log,
        Library,
        CreateHandle,
        MutexStorage,
        Thread
    };

    unsigned int Init(Fault eFault);
    void Uninit();
    unsigned int Request(const tag_CORPDIR_DOWNLOADINFO* pstInfo, bool bCallback);
    void Notify(unsigned int ulType, unsigned int ulTask, const std::string& strFile);
    void Expire();
    void Work();
    unsigned int ReplaceCiphers(const std::vector<int>& vecList);
    unsigned int AddCipher(int iCipher);

    bool bThread = false;
    bool bRuns = false;
    Handle eHandle = Handle::None;
    Mutex eMutex = Mutex::None;
    bool bTimer = false;
    std::string strTrust, strUser, strFtpIP, strIPs, strAllIPs, strLocalIP, strOldVersion;
    std::string strPassword;
    std::string strVersionServer, strCorpDirServer, strVersionDir, strVersionName, strCorpDirDir,
        strCorpDirName;
    bool bPassword = false;
    unsigned int ulPort = 0, ulMode = 0, ulVerify = 0;
    bool bCallback = false;
    unsigned int ulVersionTask = 0, ulCorpDirTask = 0;
    std::deque<unsigned int> queTasks;
    unsigned int ulCipherCount = 0;
    bool bCipherStorage = false;
    std::vector<int> vecCiphers;
    unsigned int ulReportedGood = 0, ulReportedBad = 0;

    Version version;                  // the version file on disk
    unsigned int ulNextTask = 1;      // the library's
    std::set<std::string> setFaults;  // whose next call fails
    Given given;                      // for the last download

private:
    bool Fails(const std::string& strFunction)
    {
        return setFaults.erase(strFunction) != 0;
    }
    unsigned int StartTimer();
    bool SetAddress();
    unsigned int Download(const std::string& strServer, const std::string& strDir,
                          const std::string& strName, unsigned int& ulTask);
    void VersionOver();
    void Failed(unsigned int ulTask, const std::string& strFile);
    void TakeFirst();
};

unsigned int Model::Init(Fault eFault)
{
    if (eFault == Fault::Log)
    {
        return 5;
    }
    if (eFault == Fault::Library || (eFault == Fault::CreateHandle && eHandle == Handle::None))
    {
        return 1;
    }
    eHandle = eHandle == Handle::None ? Handle::Live : eHandle;
    if (eFault == Fault::MutexStorage)
    {
        eMutex = Mutex::None;
        eHandle = Handle::Closed;
        return 1;
    }
    eMutex = Mutex::Live;
    queTasks.clear();
    if (!bThread && eFault == Fault::Thread)
    {
        eMutex = Mutex::Released;
        eHandle = Handle::Closed;
        return 1;
    }
    bRuns = bRuns || !bThread;
    bThread = true;
    return 0;
}

void Model::Uninit()
{
    bTimer = bRuns = bThread = bPassword = bCipherStorage = false;
    eHandle = Handle::None;
    eMutex = Mutex::None;
    ulVersionTask = ulCorpDirTask = 0;
    for (std::string* const pstrText :
         {&strUser, &strFtpIP, &strIPs, &strAllIPs, &strLocalIP, &strOldVersion, &strVersionServer,
          &strCorpDirServer, &strVersionDir, &strVersionName, &strCorpDirDir, &strCorpDirName})
    {
        pstrText->clear();
    }
    queTasks.clear();
}

// The first address becomes current; a single one stays in the list.
void Model::TakeFirst()
{
    const size_t ulPos = strIPs.find(';');
    if (ulPos != std::string::npos)
    {
        strFtpIP = strIPs.substr(0, ulPos);
        strIPs = strIPs.substr(ulPos + 1);
    }
    else if (!strIPs.empty())
    {
        strFtpIP = strIPs;
    }
}

unsigned int Model::Request(const tag_CORPDIR_DOWNLOADINFO* pstInfo, bool bWithCallback)
{
    if (pstInfo == nullptr || pstInfo->pszFtpIPs == nullptr)
    {
        return 1;
    }
    strTrust = pstInfo->szFtpCtrlInfo;
    strUser = pstInfo->szUserName;
    if (pstInfo->szPassword[0] == '\0')
    {
        return 1;
    }
    if (Fails("ZEP_CPYPT_Encrypt"))
    {
        return 1;
    }
    bPassword = !Fails("malloc");
    if (!bPassword)
    {
        return 1;
    }
    strPassword = pstInfo->szPassword;
    strIPs = strAllIPs = pstInfo->pszFtpIPs;
    TakeFirst();
    strLocalIP = pstInfo->pszLocalIP != nullptr ? pstInfo->pszLocalIP : strLocalIP;
    ulVerify = pstInfo->ulCertVerify == 1 ? 1 : 0;
    ulPort = pstInfo->ulPort;
    ulMode = pstInfo->ulFtpMode;
    strVersionServer = pstInfo->szVersionServerFile;
    strCorpDirServer = pstInfo->szCorpDirServerFile;
    strVersionDir = pstInfo->szVersionLocalDir;
    strVersionName = pstInfo->szVersionLocalFileName;
    strCorpDirDir = pstInfo->szCorpDirLocalDir;
    strCorpDirName = pstInfo->szCorpDirLocalFileName;
    strOldVersion.clear();
    if (!bWithCallback)
    {
        return 1;
    }
    bCallback = true;
    const unsigned int ulRet =
        Download(strVersionServer, strVersionDir, strVersionName, ulVersionTask);
    return ulRet != 0 ? ulRet : StartTimer();
}

// A timer that cannot be created is no failure; one that does not start is freed.
unsigned int Model::StartTimer()
{
    if (!bTimer && Fails("OSAK_CreateRelTimerM"))
    {
        return 0;
    }
    bTimer = !Fails("OSAK_StartRelTimer");
    return bTimer ? 0 : 1;
}

// Names resolve to 192.0.2.7; a short form of numbers and dots gives no address.
bool Model::SetAddress()
{
    static const std::map<std::string, std::pair<unsigned int, std::string>> LITERALS = {
        {"192.0.2.1", {0, {'\xC0', '\0', '\2', '\1'}}},
        {"::1", {1, std::string(15, '\0') + '\1'}},
        {"10.1", {0, ""}}};
    const auto it = LITERALS.find(strFtpIP);
    if (it == LITERALS.end() && Fails("OSAK_GetAddrInfo"))
    {
        return false;
    }
    given.ulIpType = it == LITERALS.end() ? 0 : it->second.first;
    given.strAddress =
        it == LITERALS.end() ? std::string{'\xC0', '\0', '\2', '\7'} : it->second.second;
    given.strAddress.resize(16, '\0');
    return true;
}

unsigned int Model::Download(const std::string& strServer, const std::string& strDir,
                             const std::string& strName, unsigned int& ulTask)
{
    if (strServer.empty() || strDir.empty() || strName.empty())
    {
        return 1;
    }
    ulTask = 0;
    eHandle = eHandle == Handle::None ? Handle::Live : eHandle;
    if (strTrust.empty() || strUser.empty() || !bPassword || strFtpIP.empty() ||
        Fails("ZEP_CPYPT_Decrypt"))
    {
        return 1;
    }
    if (ulCipherCount == 0 || !bCipherStorage)
    {
        (void)ReplaceCiphers(DEFAULT_CIPHERS);
    }
    if (!SetAddress() || Fails("TRAVEX_FTP_SetCtrlParam") || eHandle == Handle::Closed ||
        Fails("TRAVEX_FTP_SetDataParam"))
    {
        return 1;
    }
    if (Fails("TRAVEX_FTP_AsynDownloadFile"))
    {
        return FAULTS.at("TRAVEX_FTP_AsynDownloadFile");
    }
    given.strServerFile = strServer;
    given.strLocalFile = strName;
    given.strWorkDir = strDir + (strDir.back() == '/' ? "" : "/");
    given.strUser = strUser;
    given.strPassword = strPassword;
    given.ulServerType = ulMode == 0 ? 1 : 0;
    given.ulPort = ulPort;
    given.ulVerify = ulVerify;
    given.vecCiphers = vecCiphers;
    ulTask = ulNextTask++;
    return 0;
}

void Model::Notify(unsigned int ulType, unsigned int ulTask, const std::string& strFile)
{
    if (ulType == FAILED)
    {
        Failed(ulTask, strFile);
    }
    else if (ulType == OVER && ulTask == ulVersionTask)
    {
        VersionOver();
    }
    else if (ulType == OVER && ulTask == ulCorpDirTask)
    {
        ulReportedGood += bCallback ? 1 : 0;
    }
}

void Model::VersionOver()
{
    const std::string strLine = version.strBytes.substr(0, version.strBytes.find('\n'));
    const std::string strVersion = strLine.substr(0, 30).c_str();  // a zero byte ends it
    if (!version.bExists || strVersionDir.empty() || strVersionName.empty() ||
        strVersion.size() < 5)
    {
        return;
    }
    if (strVersion != strOldVersion)
    {
        strOldVersion = strVersion;
        queTasks.push_back(2);
    }
    strIPs = strAllIPs.empty() ? strIPs : strAllIPs;
}

void Model::Failed(unsigned int ulTask, const std::string& strFile)
{
    unsigned int* const pulMember = ulTask == ulVersionTask   ? &ulVersionTask
                                    : ulTask == ulCorpDirTask ? &ulCorpDirTask
                                                              : nullptr;
    if (pulMember != nullptr)
    {
        *pulMember = 0;
    }
    ulReportedBad += bCallback ? 1 : 0;
    if (strIPs.empty())
    {
        strIPs = strAllIPs;
        TakeFirst();
    }
    else if (strFile == strVersionServer)
    {
        const bool bSingle = strIPs.find(';') == std::string::npos;
        TakeFirst();
        strIPs = bSingle ? "" : strIPs;
        queTasks.push_back(1);
    }
}

void Model::Expire()
{
    queTasks.push_back(1);
}

// One pass of the worker: everything that is queued.
void Model::Work()
{
    for (; !queTasks.empty(); queTasks.pop_front())
    {
        if (queTasks.front() == 1)
        {
            (void)Download(strVersionServer, strVersionDir, strVersionName, ulVersionTask);
        }
        else if (queTasks.front() == 2)
        {
            (void)Download(strCorpDirServer, strCorpDirDir, strCorpDirName, ulCorpDirTask);
        }
    }
}

unsigned int Model::ReplaceCiphers(const std::vector<int>& vecList)
{
    if (vecList.empty())
    {
        return 1;
    }
    ulCipherCount = static_cast<unsigned int>(vecList.size());
    bCipherStorage = true;
    vecCiphers = vecList;
    return 0;
}

unsigned int Model::AddCipher(int iCipher)
{
    if (ulCipherCount == 0 || !bCipherStorage)
    {
        (void)ReplaceCiphers(DEFAULT_CIPHERS);
    }
    if (std::find(vecCiphers.begin(), vecCiphers.end(), iCipher) == vecCiphers.end())
    {
        vecCiphers.push_back(iCipher);
        ++ulCipherCount;
    }
    return 0;
}

// --- Sequences ----------------------------------------------------------------------------------

unsigned int FromEnvironment(const char* pszName, unsigned int ulDefault)
{
    const char* const pszValue = std::getenv(pszName);
    return pszValue != nullptr ? static_cast<unsigned int>(std::strtoul(pszValue, nullptr, 10))
                               : ulDefault;
}

class ModelTest : public ServiceTest
{
protected:
    void RunSequence(unsigned int ulSeed);

private:
    void BeginSequence();
    void OneEvent();
    void DoInit();
    void DoUninit();
    void DoRequest();
    void DoNotify();
    void DoExpire();
    void DoWork();
    void DoVersionFile();
    void DoCiphers();
    void DoFault();
    void Compare();
    void CompareDownload();
    void CompareTexts();
    void CompareResources();

    unsigned int Random(unsigned int ulBelow)
    {
        return std::uniform_int_distribution<unsigned int>(0, ulBelow - 1)(random);
    }

    std::mt19937 random;
    std::unique_ptr<Model> model;
    support::TemporaryDirectory directory;
    Lines vecDone;  // the events of this sequence, for a failure's message
    bool bStartFailed = false;
    unsigned int ulCompared = 0;  // the task whose parameters were compared last
    unsigned int ulReportedGood = 0;
    unsigned int ulReportedBad = 0;
};

void ModelTest::BeginSequence()
{
    Renew();
    fakes::Reset();
    fakes::SetWorkerMode(fakes::WorkerMode::Stepped);
    (void)std::remove(directory.File("version.local").c_str());
    model = std::make_unique<Model>();
    vecDone.clear();
    bStartFailed = false;
    ulReportedGood = ulReportedBad = ulCompared = 0;
}

void ModelTest::RunSequence(unsigned int ulSeed)
{
    random.seed(ulSeed);
    BeginSequence();
    const unsigned int ulEvents = 1 + Random(40);
    for (unsigned int i = 0; i < ulEvents && !HasFailure(); ++i)
    {
        OneEvent();
        Compare();
    }
    const Lines vecMisuses = fakes::TakeMisuses();
    EXPECT_TRUE(bStartFailed || vecMisuses.empty())
        << "only a failed start leaves closed and released values on purpose: "
        << testing::PrintToString(vecMisuses);
    if (HasFailure())
    {
        ADD_FAILURE() << "sequence with seed " << ulSeed << ": " << testing::PrintToString(vecDone);
    }
}

void ModelTest::OneEvent()
{
    using Event = void (ModelTest::*)();
    // An event that is listed twice happens twice as often.
    static constexpr Event EVENTS[] = {
        &ModelTest::DoInit,   &ModelTest::DoUninit,      &ModelTest::DoRequest,
        &ModelTest::DoNotify, &ModelTest::DoNotify,      &ModelTest::DoNotify,
        &ModelTest::DoNotify, &ModelTest::DoExpire,      &ModelTest::DoWork,
        &ModelTest::DoWork,   &ModelTest::DoVersionFile, &ModelTest::DoCiphers,
        &ModelTest::DoFault,  &ModelTest::DoInit,        &ModelTest::DoRequest};
    (this->*EVENTS[Random(sizeof(EVENTS) / sizeof(EVENTS[0]))])();
}

void ModelTest::DoInit()
{
    static const struct
    {
        Model::Fault eFault;
        const char* pszFunction;
        unsigned int ulCode;
    } START_FAULTS[] = {{Model::Fault::Log, "CorpDir_OpenLog", 5},
                        {Model::Fault::Library, "TRAVEX_FTP_Init", 9},
                        {Model::Fault::CreateHandle, "TRAVEX_FTP_CreateHandle", 1},
                        {Model::Fault::MutexStorage, "OSAK_MemMallocD", 1},
                        {Model::Fault::Thread, "OSAK_PthreadCreate", 11}};
    const auto& fault = START_FAULTS[Random(5)];
    const bool bFault = Random(4) == 0;
    // A fault counts only when the start reaches its call.
    const bool bReached =
        bFault &&
        (fault.eFault != Model::Fault::CreateHandle || model->eHandle == Model::Handle::None) &&
        (fault.eFault != Model::Fault::Thread || !model->bThread);
    bStartFailed = bStartFailed || bReached;
    if (bReached)
    {
        fakes::FailCall(fault.pszFunction, 1, fault.ulCode);
    }
    vecDone.push_back(bReached ? std::string("start, failing ") + fault.pszFunction : "start");
    const unsigned int ulExpected = model->Init(bReached ? fault.eFault : Model::Fault::None);
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), ulExpected);
}

void ModelTest::DoUninit()
{
    vecDone.push_back("stop");
    model->Uninit();
    client.CorpDirUninit();
}

void ModelTest::DoRequest()
{
    static const char* const SERVERS[] = {
        "A", "A;B", "A;B;C", "", ";B", "A;;C", "A;B;", "192.0.2.1;::1", "10.1;A;B;C;D;E"};
    tag_CORPDIR_DOWNLOADINFO stInfo = ARequest();
    SetField(stInfo.szVersionLocalDir, directory.Path() + (Random(2) == 0 ? "/" : ""));
    SetField(stInfo.szPassword, std::string(1 + Random(127), static_cast<char>('a' + Random(26))));
    stInfo.pszFtpIPs = Random(20) == 0 ? nullptr : SERVERS[Random(9)];
    stInfo.ulPort = Random(2) * 2121;
    stInfo.ulFtpMode = Random(3);
    stInfo.ulCertVerify = Random(3);
    stInfo.pszLocalIP = Random(2) == 0 ? nullptr : "192.0.2.99";
    char(*const apacFields[])[256] = {&stInfo.szFtpCtrlInfo,
                                      &stInfo.szUserName,
                                      &stInfo.szPassword,
                                      &stInfo.szVersionServerFile,
                                      &stInfo.szCorpDirServerFile,
                                      &stInfo.szVersionLocalDir,
                                      &stInfo.szVersionLocalFileName,
                                      &stInfo.szCorpDirLocalDir,
                                      &stInfo.szCorpDirLocalFileName};
    const unsigned int ulEmpty = Random(30);
    if (ulEmpty < 9)
    {
        SetField(*apacFields[ulEmpty], "");
    }
    const bool bRecord = Random(20) != 0;
    const bool bCallback = Random(10) != 0;
    vecDone.push_back("request of " +
                      std::string(stInfo.pszFtpIPs != nullptr ? stInfo.pszFtpIPs : "no servers") +
                      (ulEmpty < 9 ? ", field " + std::to_string(ulEmpty) + " empty" : "") +
                      (bRecord ? "" : ", no record") + (bCallback ? "" : ", no callback"));
    EXPECT_EQ(client.CorpDirDownloadNetaddr(bRecord ? &stInfo : nullptr,
                                            bCallback ? ClientCallback : nullptr),
              model->Request(bRecord ? &stInfo : nullptr, bCallback));
}

void ModelTest::DoNotify()
{
    if (Random(40) == 0)
    {
        vecDone.push_back("null notification");
        inside::NotifyCallback()(nullptr, nullptr);
        return;
    }
    static const unsigned int TYPES[] = {SUCCESS, FAILED, FAILED, OVER, OVER, 5};
    static const char* const FILES[] = {"pub/version.txt", "pub/directory.xml", "other", ""};
    const unsigned int ulType = TYPES[Random(6)];
    const unsigned int aulTasks[] = {model->ulVersionTask, model->ulCorpDirTask, Random(8)};
    const unsigned int ulTask = aulTasks[Random(3)];
    const std::string strFile = FILES[Random(4)];
    vecDone.push_back("notification " + std::to_string(ulType) + " of task " +
                      std::to_string(ulTask) + ", " + strFile);
    Notification notification(ulType, ulTask, strFile);
    if (ulType == FAILED && Random(2) == 0)
    {
        notification.WithError(Random(30));
    }
    model->Notify(ulType, ulTask, strFile);
    notification.Deliver();
}

void ModelTest::DoExpire()
{
    const fakes::Timer timer = fakes::LiveTimer();
    if (timer.pfnCallback != nullptr)
    {
        vecDone.push_back("timer");
        model->Expire();
        timer.pfnCallback(timer.pParam);
    }
}

void ModelTest::DoWork()
{
    if (model->bThread)
    {
        vecDone.push_back("worker's pass");
        model->Work();
        EXPECT_TRUE(fakes::StepWorker());
    }
}

void ModelTest::DoVersionFile()
{
    static const std::string CONTENTS[] = {"1.2.3\n",
                                           "1.2.4",
                                           "1.23\n",
                                           "",
                                           "\n1.2.3.4\n",
                                           "1.2.3\r\n",
                                           std::string("1.2.3\0.4\n", 9),
                                           "0123456789012345678901234567890123456789\n"};
    const unsigned int ulChoice = Random(9);
    model->version.bExists = ulChoice < 8;
    if (ulChoice < 8)
    {
        model->version.strBytes = CONTENTS[ulChoice];
        support::WriteFile(directory.File("version.local"), CONTENTS[ulChoice]);
    }
    else
    {
        (void)std::remove(directory.File("version.local").c_str());
    }
    vecDone.push_back("version file " + std::to_string(ulChoice));
}

void ModelTest::DoCiphers()
{
    std::vector<int> vecList;
    for (unsigned int i = Random(4); i > 0; --i)
    {
        vecList.push_back(Random(3) == 0 ? DEFAULT_CIPHERS[Random(3)]
                                         : static_cast<int>(Random(6)));
    }
    const auto ulCount = static_cast<unsigned int>(vecList.size());
    switch (Random(5))
    {
        case 4:
            vecDone.push_back("ciphers replaced by a null list");
            EXPECT_EQ(client.CorpDirSetFtpCipherListToDirImpl(nullptr, Random(3)), 1U);
            break;
        case 0:
            vecDone.push_back("ciphers replaced " + testing::PrintToString(vecList));
            EXPECT_EQ(client.CorpDirSetFtpCipherListToDirImpl(vecList.data(), ulCount),
                      model->ReplaceCiphers(vecList));
            break;
        case 1:
            vecDone.push_back("ciphers added " + testing::PrintToString(vecList));
            for (const int iCipher : vecList)
            {
                (void)model->AddCipher(iCipher);
            }
            EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImpl(vecList.data(), ulCount), 0U);
            break;
        default:
            vecDone.push_back("cipher 4 added");
            EXPECT_EQ(client.CorpDirAddFtpCipherListToDirImplByOne(4), model->AddCipher(4));
            break;
    }
}

// A function of a layer fails when it is called next.
void ModelTest::DoFault()
{
    const auto fault = std::next(FAULTS.begin(), Random(static_cast<unsigned int>(FAULTS.size())));
    if (model->setFaults.insert(fault->first).second)
    {
        vecDone.push_back("next call fails: " + fault->first);
        fakes::FailCall(fault->first, 1, fault->second);
    }
}

void ModelTest::Compare()
{
    CompareTexts();
    CompareResources();
    CompareDownload();
    EXPECT_EQ(members.m_ulVersionTaskID, model->ulVersionTask);
    EXPECT_EQ(members.m_ulCorpDirTaskID, model->ulCorpDirTask);
    EXPECT_EQ(members.m_ulPort, model->ulPort);
    EXPECT_EQ(members.m_ulFtpMode, model->ulMode);
    EXPECT_EQ(members.m_ulCertVerify, model->ulVerify);
    EXPECT_EQ(members.m_pfnDownloadCb != nullptr, model->bCallback);
    EXPECT_EQ(Tasks(), std::vector<unsigned int>(model->queTasks.begin(), model->queTasks.end()));
    for (const std::string& strLine : Only(Trace(), {"client("}))
    {
        ulReportedGood += strLine == "client(1, 0, null, null)" ? 1 : 0;
        ulReportedBad += strLine == "client(1, 1, null, null)" ? 1 : 0;
    }
    EXPECT_EQ(ulReportedGood, model->ulReportedGood);
    EXPECT_EQ(ulReportedBad, model->ulReportedBad);
    Logged();
}

// The library's last parameters: a retry at the wrong server would show here.
void ModelTest::CompareDownload()
{
    const fakes::Download download = fakes::LastDownload();
    if (download.ulTaskID == 0 || download.ulTaskID == ulCompared)
    {
        return;  // refused, or seen before
    }
    EXPECT_EQ(download.ulTaskID + 1, model->ulNextTask);
    ulCompared = download.ulTaskID;
    const fakes::ControlParameters control = fakes::LastControlParameters();
    const tagTRAVEX_FTP_S_CTRL_PARAM& stRecord = control.stRecord;
    Given given;
    given.strServerFile = download.strServerFile;
    given.strLocalFile = download.strLocalFile;
    given.strWorkDir = stRecord.acWorkDir;
    given.strUser = stRecord.acUserName;
    given.strPassword = stRecord.acPassword;
    given.strAddress.assign(reinterpret_cast<const char*>(stRecord.aucServerIp), 16);
    given.ulServerType = stRecord.ulServerType;
    given.ulIpType = stRecord.ulServerIpType;
    given.ulPort = stRecord.ulServerPort;
    given.ulVerify = stRecord.ulCertVerify;
    given.vecCiphers = control.vecCiphers;
    EXPECT_EQ(given, model->given);
}

void ModelTest::CompareTexts()
{
    EXPECT_EQ(members.m_strFtpCtrlInfo, model->strTrust);
    EXPECT_EQ(members.m_strUserName, model->strUser);
    EXPECT_EQ(members.m_strFtpIP, model->strFtpIP);
    EXPECT_EQ(members.m_strIPs, model->strIPs);
    EXPECT_EQ(members.m_strAllIPs, model->strAllIPs);
    EXPECT_EQ(members.m_strLocalIP, model->strLocalIP);
    EXPECT_EQ(members.m_strOldVersion, model->strOldVersion);
    EXPECT_EQ(members.m_strVersionServerPath, model->strVersionServer);
    EXPECT_EQ(members.m_strCorpDirServerPath, model->strCorpDirServer);
    EXPECT_EQ(members.m_strVersionLocalPath, model->strVersionDir);
    EXPECT_EQ(members.m_strVersionFileName, model->strVersionName);
    EXPECT_EQ(members.m_strCorpDirLocalPath, model->strCorpDirDir);
    EXPECT_EQ(members.m_strCorpDirFileName, model->strCorpDirName);
}

void ModelTest::CompareResources()
{
    EXPECT_EQ(inside::WorkerThread() != nullptr, model->bThread);
    EXPECT_EQ(inside::WorkerRunFlag(), model->bRuns ? 1U : 0U);
    EXPECT_EQ(members.m_hFtpHandle != nullptr, model->eHandle != Model::Handle::None);
    EXPECT_EQ(fakes::LiveFtpHandles(), model->eHandle == Model::Handle::Live ? 1U : 0U);
    EXPECT_EQ(members.m_hMutex != nullptr, model->eMutex != Model::Mutex::None);
    EXPECT_EQ(members.m_pDownVersionTimer != nullptr, model->bTimer);
    EXPECT_EQ(fakes::LiveTimers(), model->bTimer ? 1U : 0U);
    EXPECT_EQ(members.m_pucPassword != nullptr, model->bPassword);
    EXPECT_EQ(g_stFtpCiperList.ulCipherNum, model->ulCipherCount);
    EXPECT_EQ(g_stFtpCiperList.piCipherList != nullptr, model->bCipherStorage);
    if (g_stFtpCiperList.piCipherList != nullptr && model->bCipherStorage)
    {
        EXPECT_EQ(std::vector<int>(g_stFtpCiperList.piCipherList,
                                   g_stFtpCiperList.piCipherList + g_stFtpCiperList.ulCipherNum),
                  model->vecCiphers);
    }
    EXPECT_EQ(fakes::LiveMemory(), (model->eMutex == Model::Mutex::Live ? 72U : 0U) +
                                       (model->bCipherStorage ? model->ulCipherCount * 4 : 0U));
}

}  // namespace

TEST_F(ModelTest, RandomSequencesAgreeWithTheModel)
{
    const unsigned int ulSequences = FromEnvironment("CORPDIR_MODEL_SEQUENCES", 2000);
    const unsigned int ulSeed = FromEnvironment("CORPDIR_MODEL_SEED", 1);
    std::printf("%u sequences from seed %u\n", ulSequences, ulSeed);
    for (unsigned int i = 0; i < ulSequences && !HasFailure(); ++i)
    {
        RunSequence(ulSeed + i);
    }
    client.CorpDirUninit();
    fakes::Reset();  // misuses are what failed starts leave on purpose; a refusal may be left over
}
