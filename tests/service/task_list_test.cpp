// The worker's queue: a list with many producers, a taker, and others who clear it.
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "service_test.h"

using testing::Each;
using testing::ElementsAre;

namespace
{

constexpr unsigned int PRODUCERS = 4;
constexpr unsigned int TASKS_EACH = 250000;
constexpr unsigned int TASKS_PER_CLEAR = 1000;  // of each producer, between two clears
constexpr unsigned int CLEARS = TASKS_EACH / TASKS_PER_CLEAR - 1;
constexpr unsigned int FIRST_LATE = CLEARS * TASKS_PER_CLEAR;  // the first after the last clear
constexpr unsigned int PRODUCER_SHIFT = 28;
constexpr unsigned int FIRST_TASK = 16;  // 1 and 2 would be downloads

CThreadProList::value_type Task(unsigned int ulValue)
{
    return static_cast<CThreadProList::value_type>(ulValue);
}

// A task names its producer and its number; none is 0, which is what a queue gives for nothing.
unsigned int NumberedTask(unsigned int ulProducer, unsigned int ulNumber)
{
    return (ulProducer << PRODUCER_SHIFT | ulNumber) + FIRST_TASK;
}

unsigned int ProducerOf(unsigned int ulTask)
{
    return (ulTask - FIRST_TASK) >> PRODUCER_SHIFT;
}

unsigned int NumberOf(unsigned int ulTask)
{
    return (ulTask - FIRST_TASK) & ((1U << PRODUCER_SHIFT) - 1);
}

// What has come out of a queue: each producer's tasks in their order, none twice.
class Receipt
{
public:
    void Take(unsigned int ulTask)
    {
        const unsigned int ulProducer = ProducerOf(ulTask);
        const unsigned int ulNumber = NumberOf(ulTask);
        bInOrder = bInOrder && ulProducer < PRODUCERS && ulNumber >= aulNext[ulProducer];
        bWithoutGap = bWithoutGap && bInOrder && ulNumber == aulNext[ulProducer];
        if (ulProducer < PRODUCERS)
        {
            aulNext[ulProducer] = ulNumber + 1;
            aulLate[ulProducer] += ulNumber >= FIRST_LATE ? 1 : 0;
            ++ulTaken;
        }
    }

    bool bInOrder = true;
    bool bWithoutGap = true;
    unsigned int ulTaken = 0;
    std::array<unsigned int, PRODUCERS> aulNext = {};
    std::array<unsigned int, PRODUCERS> aulLate = {};
};

template <class Push>
std::array<std::thread, PRODUCERS> StartProducers(Push push)
{
    std::array<std::thread, PRODUCERS> threads;
    for (unsigned int ulProducer = 0; ulProducer < PRODUCERS; ++ulProducer)
    {
        threads[ulProducer] = std::thread(
            [=]
            {
                for (unsigned int i = 0; i < TASKS_EACH; ++i)
                {
                    push(ulProducer, i);
                }
            });
    }
    return threads;
}

void WaitFor(const std::atomic<bool>& bWhat)
{
    while (!bWhat)
    {
        std::this_thread::yield();
    }
}

// Four producers beside somebody who clears: each appends a thousand tasks for each clear and a
// thousand after the last one.
class InterruptedProducers
{
public:
    explicit InterruptedProducers(CThreadProList& list)
        : threads(StartProducers(
              [this, &list](unsigned int ulProducer, unsigned int ulNumber)
              {
                  ulWaiting += ulNumber == FIRST_LATE ? 1 : 0;
                  while (ulClears < ulNumber / TASKS_PER_CLEAR)
                  {
                      std::this_thread::yield();
                  }
                  list.push_back(Task(NumberedTask(ulProducer, ulNumber)));
                  bStarted = true;
              }))
    {
        WaitFor(bStarted);
    }

    // Four thousand more tasks will come than so far, at least.
    void CountClear()
    {
        ++ulClears;
    }

    void WaitUntilOnlyTheLastClearIsMissing() const
    {
        while (ulWaiting < PRODUCERS)
        {
            std::this_thread::yield();
        }
    }

    void Join()
    {
        for (std::thread& producer : threads)
        {
            producer.join();
        }
    }

private:
    std::atomic<bool> bStarted{false};
    std::atomic<unsigned int> ulWaiting{0};
    std::atomic<unsigned int> ulClears{0};
    std::array<std::thread, PRODUCERS> threads;
};

void WaitForMore(const std::atomic<unsigned int>& ulTaken)
{
    const unsigned int ulBefore = ulTaken;
    while (ulTaken < ulBefore + 100)
    {
        std::this_thread::yield();
    }
}

class TaskListTest : public testing::Test
{
protected:
    std::vector<unsigned int> TakeAll()
    {
        std::vector<unsigned int> vecTasks;
        CThreadProList::value_type eTask{};
        while (list.take_front(eTask))
        {
            vecTasks.push_back(eTask);
        }
        return vecTasks;
    }

    CThreadProList list;
};

class WorkerQueueTest : public ServiceTest
{
protected:
    void StartReceiving();

    Receipt receipt;
};

}  // namespace

TEST_F(TaskListTest, GivesTasksFirstInFirstOut)
{
    for (const unsigned int ulTask : {1U, 2U, 1U, 1U, 7U})
    {
        list.push_back(Task(ulTask));
    }
    EXPECT_THAT(TakeAll(), ElementsAre(1, 2, 1, 1, 7));
    EXPECT_TRUE(list.empty());
}

TEST_F(TaskListTest, KeepsTheOrderAcrossReadsInBetween)
{
    CThreadProList::value_type eTask{};
    list.push_back(Task(1));
    EXPECT_FALSE(list.empty());
    list.push_back(Task(2));
    list.push_back(Task(3));
    EXPECT_EQ(list.front(), Task(1));
    list.push_back(Task(4));
    EXPECT_TRUE(list.take_front(eTask));
    EXPECT_EQ(eTask, Task(1));
    list.push_back(Task(5));
    EXPECT_EQ(list.size(), 4U);
    EXPECT_THAT(TakeAll(), ElementsAre(2, 3, 4, 5));
}

TEST_F(TaskListTest, AnEmptyListGivesZeroAndHasNothingToTake)
{
    CThreadProList::value_type eTask = Task(7);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.size(), 0U);
    EXPECT_EQ(list.front(), Task(0));
    EXPECT_FALSE(list.take_front(eTask));
    EXPECT_EQ(eTask, Task(7));
    list.clear();
    EXPECT_TRUE(list.empty());
}

TEST_F(TaskListTest, TheFrontIsACopyAndStaysUntilItIsTaken)
{
    CThreadProList::value_type eTask{};
    list.push_back(Task(1));
    list.push_back(Task(2));
    EXPECT_EQ(list.front(), Task(1));
    EXPECT_EQ(list.front(), Task(1));
    EXPECT_TRUE(list.take_front(eTask));
    EXPECT_EQ(list.front(), Task(2));
}

TEST_F(TaskListTest, ClearDropsEverything)
{
    list.push_back(Task(1));
    list.push_back(Task(2));
    list.clear();
    EXPECT_TRUE(list.empty());
    list.push_back(Task(3));
    EXPECT_THAT(TakeAll(), ElementsAre(3));
}

TEST_F(TaskListTest, AnyValueOf32BitsPasses)
{
    for (const unsigned int ulTask : {0U, 0xFFFFFFFFU, 0x80000000U})
    {
        list.push_back(Task(ulTask));
    }
    EXPECT_THAT(TakeAll(), ElementsAre(0, 0xFFFFFFFF, 0x80000000));
}

TEST_F(TaskListTest, AMillionTasksOfFourProducersAllComeOutOnceAndInOrder)
{
    auto producers = StartProducers([this](unsigned int ulProducer, unsigned int ulNumber)
                                    { list.push_back(Task(NumberedTask(ulProducer, ulNumber))); });
    Receipt receipt;
    CThreadProList::value_type eTask{};
    while (receipt.ulTaken < PRODUCERS * TASKS_EACH && receipt.bWithoutGap)
    {
        if (list.take_front(eTask))
        {
            receipt.Take(eTask);
        }
    }
    for (std::thread& producer : producers)
    {
        producer.join();
    }
    EXPECT_TRUE(receipt.bWithoutGap);
    EXPECT_TRUE(list.empty());
}

// The taker begins after the first clear, which so finds a task. What was appended after the last
// one must all come out; of the rest any part may, in order and once.
TEST_F(TaskListTest, ClearsInBetweenLoseNothingThatCameAfterThem)
{
    InterruptedProducers producers(list);
    list.clear();
    producers.CountClear();
    std::atomic<bool> bProduced{false};
    std::atomic<unsigned int> ulTaken{0};
    Receipt receipt;
    std::thread taker(
        [&]
        {
            // The flag is read first: what was appended before it is then in the list or taken.
            for (bool bLast = false; !bLast;)
            {
                bLast = bProduced;
                CThreadProList::value_type eTask{};
                while (list.take_front(eTask))
                {
                    receipt.Take(eTask);
                    ++ulTaken;
                }
            }
        });
    for (unsigned int i = 1; i < CLEARS; ++i)
    {
        WaitForMore(ulTaken);
        list.clear();
        producers.CountClear();
    }
    producers.Join();
    bProduced = true;
    taker.join();
    EXPECT_TRUE(receipt.bInOrder);
    EXPECT_LT(receipt.ulTaken, PRODUCERS * TASKS_EACH) << "no clear found a task";
    EXPECT_THAT(receipt.aulLate, Each(TASKS_PER_CLEAR));
}

namespace
{

constexpr unsigned int HOLD = 3;  // a task that the worker has taken, but does not go on with yet

std::atomic<unsigned int> g_ulTaken{0};
std::atomic<bool> g_bHeld{false};
std::atomic<bool> g_bReleased{false};
Receipt* g_pReceipt = nullptr;  // the worker's alone while it runs

// The worker says which task it takes.
void ReceiveFromLog(unsigned int, const char*, const char* pszText)
{
    const char* const pszBegin = "Thread download type : ";
    if (std::strncmp(pszText, pszBegin, std::strlen(pszBegin)) != 0)
    {
        return;
    }
    const auto ulTask =
        static_cast<unsigned int>(std::strtol(pszText + std::strlen(pszBegin), nullptr, 10));
    if (ulTask == HOLD)
    {
        g_bHeld = true;
        WaitFor(g_bReleased);
    }
    else
    {
        g_pReceipt->Take(ulTask);
        ++g_ulTaken;
    }
}

}  // namespace

void WorkerQueueTest::StartReceiving()
{
    g_pReceipt = &receipt;
    g_ulTaken = 0;
    g_bHeld = false;
    g_bReleased = false;
    fakes::SetWorkerMode(fakes::WorkerMode::Free);
    fakes::SetRecording(false);
    fakes::SetLogSink(ReceiveFromLog);
    ASSERT_EQ(client.CorpDirInit(&stLogInfo), 0U);
}

TEST_F(WorkerQueueTest, AMillionTasksOfFourProducersReachTheWorkerOnceAndInOrder)
{
    StartReceiving();
    auto producers = StartProducers(
        [this](unsigned int ulProducer, unsigned int ulNumber)
        { members.m_listThreadPro.push_back(Task(NumberedTask(ulProducer, ulNumber))); });
    for (std::thread& producer : producers)
    {
        producer.join();
    }
    while (g_ulTaken < PRODUCERS * TASKS_EACH)
    {
        std::this_thread::yield();
    }
    client.CorpDirUninit();
    fakes::SetLogSink(nullptr);
    EXPECT_TRUE(receipt.bWithoutGap);
    EXPECT_EQ(receipt.ulTaken, PRODUCERS * TASKS_EACH);
}

// Each start of the running service clears the queue. At the last one the worker is held within its
// take of a task: what arrives before it goes on must stay.
TEST_F(WorkerQueueTest, ClearsBesideTheWorkerLoseNothingThatCameAfterThem)
{
    StartReceiving();
    InterruptedProducers producers(members.m_listThreadPro);
    for (unsigned int i = 1; i < CLEARS; ++i)
    {
        EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
        producers.CountClear();
        WaitForMore(g_ulTaken);
    }
    producers.WaitUntilOnlyTheLastClearIsMissing();
    AddTask(HOLD);
    WaitFor(g_bHeld);
    EXPECT_EQ(client.CorpDirInit(&stLogInfo), 0U);
    producers.CountClear();
    producers.Join();
    g_bReleased = true;
    while (!members.m_listThreadPro.empty())
    {
        std::this_thread::yield();
    }
    client.CorpDirUninit();
    fakes::SetLogSink(nullptr);
    EXPECT_TRUE(receipt.bInOrder);
    EXPECT_LT(receipt.ulTaken, PRODUCERS * TASKS_EACH) << "no start found a task";
    EXPECT_THAT(receipt.aulLate, Each(TASKS_PER_CLEAR));
}
