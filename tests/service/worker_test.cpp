// The worker thread: its tasks, its idle passes, and its end.
#include "service_test.h"

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(sizeof(tagCORPDIR_E_THREADPRO_TYPE) == 4, "a task is a number of 32 bits");

namespace
{

class WorkerTest : public ServiceTest
{
};

const Lines IDLE_PASS = {"OSAK_MutexLock(block 1)", "OSAK_MutexUnLock(block 1)", "usleep(50)"};

const Lines LEAVING = {"log 2 ThreadProcess: Before CloseHandle.", "TRAVEX_FTP_CloseHandle(ftp 1)",
                       "log 2 ThreadProcess: TRAVEX_FTP_CloseHandle Ret : 0",
                       "log 2 ThreadProcess: ThreadProcess Leave."};

const std::string ENTERING = "log 2 ThreadProcess: Thread Process In : 0x7001.";

}  // namespace

TEST_F(WorkerTest, AnIdlePassLocksUnlocksAndSleepsFiftyMicroseconds)
{
    Start();
    fakes::OnCall("usleep", 3, [] { inside::WorkerRunFlag() = 0; });
    EXPECT_EQ(CFTPCorpDirImpl::ThreadProcess(), 0U);
    EXPECT_EQ(Trace(), Joined({{ENTERING}, IDLE_PASS, IDLE_PASS, IDLE_PASS, LEAVING}));
}

TEST_F(WorkerTest, LooksForATaskOnlyOnceItHasTheLock)
{
    Start();
    fakes::OnCall("OSAK_MutexLock", 1, [this] { AddTask(3); });
    RunWorkerUntilIdle();
    EXPECT_THAT(
        Only(Trace(), {"OSAK_Mutex", "log 2 ThreadProcess: Thread download", "usleep"}),
        ElementsAre("OSAK_MutexLock(block 1)", "log 2 ThreadProcess: Thread download type : 3",
                    "OSAK_MutexUnLock(block 1)", "OSAK_MutexLock(block 1)",
                    "OSAK_MutexUnLock(block 1)", "usleep(50)"));
}

TEST_F(WorkerTest, RemovesTheTaskBeforeItUnlocks)
{
    Start();
    AddTask(3);
    AddTask(4);
    std::vector<unsigned int> vecAtUnlock;
    fakes::OnCall("OSAK_MutexUnLock", 1, [&] { vecAtUnlock = Tasks(); });
    RunWorkerUntilIdle();
    EXPECT_THAT(vecAtUnlock, ElementsAre(4));
}

TEST_F(WorkerTest, RunsTheDownloadsInTheOrderOfTheirTasksDuplicatesIncluded)
{
    StartWithRequest();
    AddTask(1);
    AddTask(2);
    AddTask(2);
    RunWorkerUntilIdle();
    EXPECT_THAT(
        Only(Trace(), {"log 2 ThreadProcess: Thread", "enter", "usleep"}),
        ElementsAre(ENTERING, "log 2 ThreadProcess: Thread download type : 1",
                    "log 2 ThreadProcess: Thread begin VersionDownload.", "enter VersionDownload",
                    "log 2 ThreadProcess: Thread download type : 2",
                    "log 2 ThreadProcess: Thread begin CorpDirDownload.", "enter CorpDirDownload",
                    "log 2 ThreadProcess: Thread download type : 2",
                    "log 2 ThreadProcess: Thread begin CorpDirDownload.", "enter CorpDirDownload",
                    "usleep(50)", "log 2 ThreadProcess: ThreadProcess Leave."));
}

TEST_F(WorkerTest, ConsumesUnknownTasksWithoutAction)
{
    StartWithRequest();
    AddTask(3);
    AddTask(0);
    AddTask(0xFFFFFFFF);
    RunWorkerUntilIdle();
    EXPECT_THAT(
        Only(Logged(), {"2 ThreadProcess: Thread download", "2 ThreadProcess: Thread begin"}),
        ElementsAre("2 ThreadProcess: Thread download type : 3",
                    "2 ThreadProcess: Thread download type : 0",
                    "2 ThreadProcess: Thread download type : -1"));
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_AsynDownloadFile"), 1U) << "the request's alone";
}

TEST_F(WorkerTest, LogsADownloadThatDidNotStartAndGoesOn)
{
    StartWithRequest();
    AddTask(1);
    AddTask(2);
    fakes::FailCall("TRAVEX_FTP_AsynDownloadFile", 1, 0xFFFFFFFF);
    fakes::FailCall("TRAVEX_FTP_AsynDownloadFile", 2, 0xFFFFFFFE);
    RunWorkerUntilIdle();
    EXPECT_THAT(Only(Logged(), {"0 ThreadProcess"}),
                ElementsAre("0 ThreadProcess: VersionDownload failed : -1",
                            "0 ThreadProcess: CorpDirDownload failed : -2"));
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_AsynDownloadFile"), 3U) << "a task is not queued again";
}

TEST_F(WorkerTest, LeavesWithoutTakingATaskWhenItsFlagIsGoneAtTheTop)
{
    Start();
    AddTask(1);
    inside::WorkerRunFlag() = 0;
    EXPECT_EQ(CFTPCorpDirImpl::ThreadProcess(), 0U);
    EXPECT_EQ(Trace(), Joined({{ENTERING}, LEAVING}));
    EXPECT_THAT(Tasks(), IsEmpty()) << "the queue is cleared";
}

TEST_F(WorkerTest, DropsTheTaskJustTakenWhenItsFlagHasGoneMeanwhile)
{
    StartWithRequest();
    AddTask(1);
    AddTask(2);
    fakes::OnCall("OSAK_MutexUnLock", 1, [] { inside::WorkerRunFlag() = 0; });
    EXPECT_EQ(CFTPCorpDirImpl::ThreadProcess(), 0U);
    EXPECT_EQ(Trace(),
              Joined({{ENTERING, "OSAK_MutexLock(block 1)",
                       "log 2 ThreadProcess: Thread download type : 1", "OSAK_MutexUnLock(block 1)",
                       "log 2 ThreadProcess: Thread Process break."},
                      LEAVING}));
    EXPECT_THAT(Tasks(), IsEmpty()) << "the rest of the queue is cleared";
}

TEST_F(WorkerTest, ClosesTheHandleOnItsWayOutAndForgetsIt)
{
    Start();
    fakes::FailCall("TRAVEX_FTP_CloseHandle", 1, 0xFFFFFFFF);
    inside::WorkerRunFlag() = 0;
    CFTPCorpDirImpl::ThreadProcess();
    EXPECT_EQ(members.m_hFtpHandle, nullptr);
    EXPECT_NE(inside::WorkerThread(), nullptr) << "the thread's own handle is the stop's";
    EXPECT_THAT(Only(Logged(), {"2 ThreadProcess: TRAVEX"}),
                ElementsAre("2 ThreadProcess: TRAVEX_FTP_CloseHandle Ret : 4294967295"));
}

TEST_F(WorkerTest, ClearsTheQueueBeforeItClosesTheHandle)
{
    Start();
    AddTask(1);
    AddTask(2);
    std::vector<unsigned int> vecAtClose = {9};
    fakes::OnCall("TRAVEX_FTP_CloseHandle", 1, [&] { vecAtClose = Tasks(); });
    inside::WorkerRunFlag() = 0;
    CFTPCorpDirImpl::ThreadProcess();
    EXPECT_THAT(vecAtClose, IsEmpty());
}

TEST_F(WorkerTest, HasNothingToCloseWithoutAHandle)
{
    EXPECT_EQ(CFTPCorpDirImpl::ThreadProcess(), 0U);
    EXPECT_THAT(Trace(), ElementsAre("log 2 ThreadProcess: Thread Process In : (nil).",
                                     "log 2 ThreadProcess: Before CloseHandle.",
                                     "log 2 ThreadProcess: ThreadProcess Leave."));
}

TEST_F(WorkerTest, ReadsTheQueueWithoutLockingWhenThereIsNoMutex)
{
    AddTask(3);
    RunWorkerUntilIdle();
    EXPECT_EQ(fakes::Calls("OSAK_MutexLock"), 0U);
    EXPECT_EQ(fakes::Calls("OSAK_MutexUnLock"), 0U);
    EXPECT_THAT(Only(Logged(), {"2 ThreadProcess: Thread download"}),
                ElementsAre("2 ThreadProcess: Thread download type : 3"));
}

TEST_F(WorkerTest, IgnoresTheMutexesResults)
{
    StartWithRequest();
    AddTask(1);
    fakes::FailCall("OSAK_MutexLock", 1, 2);
    fakes::FailCall("OSAK_MutexUnLock", 1, 2);
    RunWorkerUntilIdle();
    EXPECT_THAT(Only(Logged(), {"2 ThreadProcess: Thread download"}),
                ElementsAre("2 ThreadProcess: Thread download type : 1"));
    EXPECT_EQ(fakes::Calls("TRAVEX_FTP_AsynDownloadFile"), 2U) << "the request's and the task's";
}

TEST_F(WorkerTest, AThreadThatStoppedIsNotRestartedBeforeAStop)
{
    Start();
    inside::WorkerRunFlag() = 0;
    CFTPCorpDirImpl::ThreadProcess();
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    EXPECT_EQ(fakes::Calls("OSAK_PthreadCreate"), 1U);
    EXPECT_EQ(inside::WorkerRunFlag(), 0U);
}

TEST_F(WorkerTest, ASecondStartBesideAPollingWorkerDropsTheTasksAndKeepsTheWorker)
{
    fakes::SetWorkerMode(fakes::WorkerMode::Stepped);
    StartWithRequest();
    AddTask(1);
    ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    ASSERT_TRUE(fakes::StepWorker());
    EXPECT_EQ(fakes::LastDownload().ulTaskID, 1U);
    AddTask(1);
    ASSERT_TRUE(fakes::StepWorker());
    EXPECT_EQ(fakes::LastDownload().ulTaskID, 2U);
    client.CorpDirUninit();
}
