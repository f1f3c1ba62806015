// The progress bar at any width, and the lines without a terminal.
#include <gmock/gmock.h>

#include "parts_support.h"
#include "travex_ftp.h"
#include "ui/progress.h"

namespace corpdir_tool
{
namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint64_t kMegabyte = 1000000;

ProgressState HalfWay()
{
    return {"directory", 30 * kMegabyte, 60 * kMegabyte, 2.5e6};
}

TEST(ToolProgress, BytesAreShortAndExactWhereTheyAreFew)
{
    EXPECT_EQ(ShortBytes(0), "0 bytes");
    EXPECT_EQ(ShortBytes(9999), "9999 bytes");
    EXPECT_EQ(ShortBytes(10000), "10.0 kB");
    EXPECT_EQ(ShortBytes(99949), "99.9 kB");
    EXPECT_EQ(ShortBytes(99951), "100 kB");
    EXPECT_EQ(ShortBytes(999499), "999 kB");
    EXPECT_EQ(ShortBytes(999500), "1.0 MB");
    EXPECT_EQ(ShortBytes(12300 * kMegabyte), "12.3 GB");
    EXPECT_EQ(ShortBytes(UINT64_MAX), "18446744 TB");
}

TEST(ToolProgress, TimesAreShort)
{
    EXPECT_EQ(ShortTime(seconds(0)), "0:00");
    EXPECT_EQ(ShortTime(seconds(59)), "0:59");
    EXPECT_EQ(ShortTime(seconds(3599)), "59:59");
    EXPECT_EQ(ShortTime(seconds(3723)), "1:02:03");
}

TEST(ToolProgress, AWideLineHasEverything)
{
    EXPECT_EQ(ProgressLine(HalfWay(), 79),
              "directory [==========>          ]  50%  30.0 MB of 60.0 MB  2.5 MB/s  0:12 left");
}

TEST(ToolProgress, TheBarDoesNotGrowForEver)
{
    EXPECT_EQ(ProgressLine(HalfWay(), 199),
              "directory [=============================>                            ]  50%  "
              "30.0 MB of 60.0 MB  2.5 MB/s  0:12 left");
}

TEST(ToolProgress, ANarrowLineLeavesOutTheRest)
{
    EXPECT_EQ(ProgressLine(HalfWay(), 60),
              "directory [===========>          ]  50%  2.5 MB/s  0:12 left");
    EXPECT_EQ(ProgressLine(HalfWay(), 39), "directory [=====>     ]  50%  0:12 left");
    EXPECT_EQ(ProgressLine(HalfWay(), 24), "directory [===>   ]  50%");
    EXPECT_EQ(ProgressLine(HalfWay(), 22), "directory  50%");
    EXPECT_EQ(ProgressLine(HalfWay(), 5), "direc");
}

TEST(ToolProgress, NoLineIsWiderThanAllowed)
{
    for (const std::uint64_t total : {UINT64_MAX, UINT64_MAX - 1, 60 * kMegabyte, std::uint64_t{0}})
    {
        for (unsigned int width = 0; width != 250; ++width)
        {
            ProgressState state = HalfWay();
            state.total = total;
            EXPECT_LE(ProgressLine(state, width).size(), width) << total;
        }
    }
}

TEST(ToolProgress, WithoutATotalThereIsNoBar)
{
    ProgressState state = HalfWay();
    state.total = TRAVEX_FTP_SIZE_UNKNOWN;
    EXPECT_EQ(ProgressLine(state, 79), "directory  30.0 MB  2.5 MB/s");
    EXPECT_EQ(ProgressWords(state), "directory: 30.0 MB  2.5 MB/s");
}

TEST(ToolProgress, MoreBytesThanAnnouncedAreAllOfThem)
{
    ProgressState state = HalfWay();
    state.bytes = 70 * kMegabyte;
    EXPECT_EQ(ProgressLine(state, 40), "directory [=============] 100%  2.5 MB/s");
}

TEST(ToolProgress, TheRateFollowsTheNetwork)
{
    TextStream stream;
    const Terminal terminal(stream.Get(), 80, false);
    ProgressDisplay display(terminal);
    ProgressDisplay::Clock::time_point now{};
    std::uint64_t bytes = 0;
    for (int i = 0; i != 10; ++i)
    {
        display.Show("directory", bytes += kMegabyte, 100 * kMegabyte, now += seconds(1));
    }
    EXPECT_THAT(stream.Text(), testing::EndsWith("10.0 MB of 100 MB  1.0 MB/s  1:30 left"));
    for (int i = 0; i != 10; ++i)
    {
        display.Show("directory", bytes += 4 * kMegabyte, 100 * kMegabyte, now += seconds(1));
    }
    EXPECT_THAT(stream.Text(), testing::EndsWith("50.0 MB of 100 MB  4.0 MB/s  0:13 left"));
}

TEST(ToolProgress, ATerminalThatBecameNarrowerIsCleanedUp)
{
    TextStream stream;
    Terminal terminal(stream.Get(), 80, false);
    ProgressDisplay display(terminal);
    display.Show("directory", 30, 60, {});
    const std::size_t before = stream.Text().size();
    terminal = Terminal(stream.Get(), 30, false);  // 79 columns take three rows now
    display.Show("directory", 40, 60, {});
    EXPECT_EQ(stream.Text().substr(before), "\033[2A\r\033[K\033[Jdirectory [========>   ]  66%");
}

TEST(ToolProgress, ElsewhereALineIsWrittenNowAndThen)
{
    TextStream stream;
    const Terminal none(stream.Get(), 0, false);
    ProgressDisplay display(none);
    ProgressDisplay::Clock::time_point now{};
    for (int i = 0; i != 120; ++i)
    {
        display.Show("directory", static_cast<std::uint64_t>(i) * 100000, 20 * kMegabyte,
                     now += milliseconds(100));
    }
    display.Erase();
    EXPECT_EQ(stream.Text(),
              "directory: 5.0 MB of 20.0 MB (25%)  1.0 MB/s  0:15 left\n"
              "directory: 10.0 MB of 20.0 MB (50%)  1.0 MB/s  0:10 left\n");
}

}  // namespace
}  // namespace corpdir_tool
