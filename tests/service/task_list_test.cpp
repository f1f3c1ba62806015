// The worker's task list: first in, first out, and each operation safe on any thread.
#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <numeric>
#include <thread>

#include "service_test.h"

using testing::ElementsAre;

namespace
{

constexpr unsigned int PRODUCERS = 4;
constexpr unsigned int TASKS_EACH = 50000;

CThreadProList::value_type Task(unsigned int ulValue)
{
    return static_cast<CThreadProList::value_type>(ulValue);
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

// Each producer's numbers rise.
bool IsInOrder(const std::vector<unsigned int>& vecTaken)
{
    std::array<std::vector<unsigned int>, PRODUCERS> aOfProducer;
    for (const unsigned int ulTask : vecTaken)
    {
        aOfProducer[ulTask / TASKS_EACH].push_back(ulTask);
    }
    return std::all_of(aOfProducer.begin(), aOfProducer.end(),
                       [](const auto& vecTasks)
                       { return std::is_sorted(vecTasks.begin(), vecTasks.end()); });
}

}  // namespace

TEST_F(TaskListTest, GivesTasksOfAnyValueFirstInFirstOut)
{
    for (const unsigned int ulTask : {1U, 2U, 1U, 1U, 0U, 0xFFFFFFFFU, 0x80000000U})
    {
        list.push_back(Task(ulTask));
    }
    EXPECT_THAT(TakeAll(), ElementsAre(1, 2, 1, 1, 0, 0xFFFFFFFF, 0x80000000));
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
    EXPECT_EQ(list.front(), Task(1)) << "the front stays until it is taken";
    list.push_back(Task(4));
    EXPECT_TRUE(list.take_front(eTask));
    EXPECT_EQ(eTask, Task(1));
    EXPECT_EQ(list.front(), Task(2));
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

TEST_F(TaskListTest, ClearDropsEverything)
{
    list.push_back(Task(1));
    list.push_back(Task(2));
    list.clear();
    EXPECT_TRUE(list.empty());
    list.push_back(Task(3));
    EXPECT_THAT(TakeAll(), ElementsAre(3));
}

// Test, read and removal of the front are one operation: no task is taken twice.
TEST_F(TaskListTest, TwoTakersGetTheTasksOfFourProducersOnceAndInOrder)
{
    std::atomic<bool> bProduced{false};
    std::array<std::vector<unsigned int>, 2> aTaken;
    std::vector<std::thread> vecTakers;
    for (std::vector<unsigned int>& vecTaken : aTaken)
    {
        vecTakers.emplace_back(
            [&]
            {
                // The flag is read before the list, so that the last look finds every task.
                for (bool bLast = false; !bLast;)
                {
                    bLast = bProduced;
                    const std::vector<unsigned int> vecMore = TakeAll();
                    vecTaken.insert(vecTaken.end(), vecMore.begin(), vecMore.end());
                }
            });
    }
    std::vector<std::thread> vecProducers;
    for (unsigned int ulFirst = 0; ulFirst < PRODUCERS * TASKS_EACH; ulFirst += TASKS_EACH)
    {
        vecProducers.emplace_back(
            [this, ulFirst]
            {
                for (unsigned int i = 0; i < TASKS_EACH; ++i)
                {
                    list.push_back(Task(ulFirst + i));
                }
            });
    }
    for (std::thread& producer : vecProducers)
    {
        producer.join();
    }
    bProduced = true;
    for (std::thread& taker : vecTakers)
    {
        taker.join();
    }
    EXPECT_TRUE(IsInOrder(aTaken[0]));
    EXPECT_TRUE(IsInOrder(aTaken[1]));
    std::vector<unsigned int> vecAll = aTaken[0];
    vecAll.insert(vecAll.end(), aTaken[1].begin(), aTaken[1].end());
    std::sort(vecAll.begin(), vecAll.end());
    std::vector<unsigned int> vecExpected(size_t{PRODUCERS} * TASKS_EACH);
    std::iota(vecExpected.begin(), vecExpected.end(), 0U);
    EXPECT_EQ(vecAll, vecExpected);
}

// A race is found by the thread sanitizer, a broken list by any build.
TEST_F(TaskListTest, EachOperationMayRunBesideAppendsAndClears)
{
    std::atomic<bool> bEnd{false};
    std::atomic<unsigned int> ulRounds{0};
    std::thread producer(
        [&]
        {
            while (!bEnd)
            {
                for (int i = 0; i < 10; ++i)
                {
                    list.push_back(Task(7));
                }
                list.clear();
                ulRounds.fetch_add(1, std::memory_order_relaxed);
            }
        });
    const std::function<void()> aOperations[] = {
        [&] { EXPECT_LE(list.size(), 10U); }, [&] { (void)list.empty(); },
        [&] { EXPECT_THAT(list.front(), testing::AnyOf(Task(0), Task(7))); },
        [&]
        {
            CThreadProList::value_type eTask = Task(7);
            (void)list.take_front(eTask);
            EXPECT_EQ(eTask, Task(7));
        }};
    // One after the other, and counted without order: a lock or a barrier would hide the race.
    for (const std::function<void()>& Operation : aOperations)
    {
        const unsigned int ulEnd = ulRounds.load(std::memory_order_relaxed) + 1000;
        while (ulRounds.load(std::memory_order_relaxed) < ulEnd)
        {
            Operation();
        }
    }
    bEnd = true;
    producer.join();
    EXPECT_TRUE(list.empty());
}
