#include "ui/progress.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "travex_ftp.h"

namespace corpdir_tool
{

namespace
{

constexpr std::size_t kShortestBar = 8;
constexpr std::size_t kLongestBar = 60;

// Seconds after which the weight of an old rate has fallen to a third.
constexpr double kRateMemory = 2.0;

bool IsKnown(std::uint64_t total)
{
    return total != TRAVEX_FTP_SIZE_UNKNOWN && total != 0;
}

std::string Rate(const ProgressState& state)
{
    return state.rate < 1 ? "" : "  " + ShortBytes(static_cast<std::uint64_t>(state.rate)) + "/s";
}

std::string TimeLeft(const ProgressState& state)
{
    if (state.rate < 1 || state.bytes >= state.total)
    {
        return "";
    }
    const double seconds = static_cast<double>(state.total - state.bytes) / state.rate;
    return "  " + ShortTime(std::chrono::seconds(std::llround(std::min(seconds, 1e6)))) + " left";
}

std::string Bar(std::size_t columns, const ProgressState& state)
{
    const auto inner = columns - 2;
    const double share = static_cast<double>(state.bytes) / static_cast<double>(state.total);
    const auto done = static_cast<std::size_t>(std::min(1.0, share) * static_cast<double>(inner));
    std::string bar(inner, ' ');
    std::fill_n(bar.begin(), done, '=');
    if (done < inner)
    {
        bar[done] = '>';
    }
    return "[" + bar + "]";
}

}  // namespace

std::string PercentOf(std::uint64_t bytes, std::uint64_t total)
{
    // Floating point: the product of large integers would overflow.
    const double percent = static_cast<double>(bytes) * 100.0 / static_cast<double>(total);
    return std::to_string(bytes >= total ? 100 : static_cast<int>(percent)) + "%";
}

std::string ShortBytes(std::uint64_t bytes)
{
    if (bytes < 10000)
    {
        return std::to_string(bytes) + " bytes";
    }
    const std::array<const char*, 4> units = {"kB", "MB", "GB", "TB"};
    double amount = static_cast<double>(bytes) / 1000.0;
    std::size_t unit = 0;
    // 1000 of a unit is shown as 1 of the next.
    while (amount >= 999.5 && unit + 1 < units.size())
    {
        amount /= 1000.0;
        ++unit;
    }
    char text[32] = "";
    (void)std::snprintf(text, sizeof text, amount < 99.95 ? "%.1f %s" : "%.0f %s", amount,
                        units[unit]);
    return text;
}

std::string ShortTime(std::chrono::seconds time)
{
    const auto seconds = time.count();
    char text[48] = "";
    if (seconds >= 3600)
    {
        (void)std::snprintf(
            text, sizeof text, "%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
            static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
    }
    else
    {
        (void)std::snprintf(text, sizeof text, "%lld:%02lld", static_cast<long long>(seconds / 60),
                            static_cast<long long>(seconds % 60));
    }
    return text;
}

std::string ProgressLine(const ProgressState& state, unsigned int width)
{
    if (!IsKnown(state.total))
    {
        const std::string amount = ShortBytes(state.bytes);
        return (state.what + "  " + amount + Rate(state)).substr(0, width);
    }
    const std::string number = PercentOf(state.bytes, state.total);
    const std::string percent = std::string(4 - number.size(), ' ') + number;
    const std::string amount = "  " + ShortBytes(state.bytes) + " of " + ShortBytes(state.total);
    // The text after the bar, from the longest form to the shortest.
    const std::string rests[] = {percent + amount + Rate(state) + TimeLeft(state),
                                 percent + Rate(state) + TimeLeft(state), percent + TimeLeft(state),
                                 percent};
    for (const std::string& rest : rests)
    {
        const std::size_t others = state.what.size() + 1 + 1 + rest.size();
        if (others + kShortestBar <= width)
        {
            const std::size_t columns = std::min(width - others, kLongestBar);
            return state.what + " " + Bar(columns, state) + " " + rest;
        }
    }
    return (state.what + " " + percent).substr(0, width);
}

std::string ProgressWords(const ProgressState& state)
{
    if (!IsKnown(state.total))
    {
        return state.what + ": " + ShortBytes(state.bytes) + Rate(state);
    }
    return state.what + ": " + ShortBytes(state.bytes) + " of " + ShortBytes(state.total) + " (" +
           PercentOf(state.bytes, state.total) + ")" + Rate(state) + TimeLeft(state);
}

void ProgressDisplay::Show(const std::string& what, std::uint64_t bytes, std::uint64_t total,
                           Clock::time_point now)
{
    if (what != m_state.what || bytes < m_state.bytes)
    {
        Erase();
        m_state.what = what;
        m_lineWritten = now;
    }
    Measure(bytes, now);
    m_state.total = total;
    if (m_terminal.Rewrites())
    {
        // Some terminals wrap after the last column.
        Draw(ProgressLine(m_state, m_terminal.Width() - 1));
    }
    else if (now - m_lineWritten >= kLineInterval)
    {
        m_lineWritten = now;
        (void)std::fprintf(m_terminal.Stream(), "%s\n", ProgressWords(m_state).c_str());
        (void)std::fflush(m_terminal.Stream());
    }
}

// Averages over the last seconds, so that the rate follows changes of the network.
void ProgressDisplay::Measure(std::uint64_t bytes, Clock::time_point now)
{
    if (m_measured && now > *m_measured)
    {
        const double seconds = std::chrono::duration<double>(now - *m_measured).count();
        const double rate = static_cast<double>(bytes - m_state.bytes) / seconds;
        const double weight = m_state.rate > 0 ? std::exp(-seconds / kRateMemory) : 0;
        m_state.rate = weight * m_state.rate + (1 - weight) * rate;
    }
    m_measured = now;
    m_state.bytes = bytes;
}

// A terminal that has become narrower has wrapped the old line into several rows. The cursor's row
// is cleared first: some terminals keep what is cleared from the top left corner in their
// scrollback.
void ProgressDisplay::Draw(const std::string& line)
{
    const std::size_t rows = m_drawn == 0 ? 0 : (m_drawn - 1) / m_terminal.Width();
    if (rows != 0)
    {
        (void)std::fprintf(m_terminal.Stream(), "\033[%zuA", rows);
    }
    (void)std::fprintf(m_terminal.Stream(), "\r\033[K\033[J%s", line.c_str());
    (void)std::fflush(m_terminal.Stream());
    m_drawn = line.size();
}

void ProgressDisplay::Erase()
{
    if (m_drawn != 0)
    {
        Draw("");
    }
    m_state = ProgressState();
    m_measured.reset();
}

}  // namespace corpdir_tool
