#include "cli/duration.h"

#include <array>

#include "text.h"

namespace corpdir_tool
{

namespace
{

struct Unit
{
    char letter;
    unsigned int seconds;
};

constexpr std::array<Unit, 4> kUnits = {{{'d', 86400}, {'h', 3600}, {'m', 60}, {'s', 1}}};
constexpr unsigned long long kMost = 36525ULL * 86400;
constexpr std::size_t kMostDigits = 10;

}  // namespace

std::optional<unsigned int> SecondsOf(const std::string& text)
{
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    unsigned int factor = digits == text.size() ? 1 : 0;
    for (const Unit& unit : kUnits)
    {
        if (text.substr(digits) == std::string(1, unit.letter))
        {
            factor = unit.seconds;
        }
    }
    if (digits == 0 || digits > kMostDigits || factor == 0)
    {
        return std::nullopt;
    }
    const unsigned long long seconds = std::stoull(text.substr(0, digits)) * factor;
    if (seconds > kMost)
    {
        return std::nullopt;
    }
    return static_cast<unsigned int>(seconds);
}

std::string DurationText(unsigned int seconds)
{
    for (const Unit& unit : kUnits)
    {
        if (seconds >= unit.seconds && seconds % unit.seconds == 0)
        {
            return std::to_string(seconds / unit.seconds) + unit.letter;
        }
    }
    return "0s";
}

CLI::Validator Duration(unsigned int least, unsigned int most)
{
    const auto replace = [least, most](std::string& text) -> std::string
    {
        const std::optional<unsigned int> seconds = SecondsOf(text);
        if (!seconds)
        {
            return "'" + Printable(text) + "' is not a duration such as 90, 90s, 5m, 2h or 1d";
        }
        if (*seconds < least || *seconds > most)
        {
            return "'" + Printable(text) + "' is not between " + DurationText(least) + " and " +
                   DurationText(most);
        }
        text = std::to_string(*seconds);
        return "";
    };
    return {replace, ""};
}

}  // namespace corpdir_tool
