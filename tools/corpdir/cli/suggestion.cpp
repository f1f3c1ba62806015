#include "cli/suggestion.h"

#include <algorithm>
#include <numeric>

namespace corpdir_tool
{

namespace
{

// Largest distance at which a word is still recognised.
constexpr std::size_t kMaxDistance = 2;

// Levenshtein distance: letters to insert, delete or replace.
std::size_t Distance(const std::string& word, const std::string& other)
{
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (const char letter : word)
    {
        std::size_t before = row[0]++;
        for (std::size_t i = 1; i != row.size(); ++i)
        {
            const std::size_t replaced = before + (letter == other[i - 1] ? 0 : 1);
            before = row[i];
            row[i] = std::min({row[i] + 1, row[i - 1] + 1, replaced});
        }
    }
    return row.back();
}

}  // namespace

std::string Suggestion(const std::string& word, const std::vector<std::string>& candidates)
{
    const auto closest = std::min_element(candidates.begin(), candidates.end(),
                                          [&word](const std::string& one, const std::string& other)
                                          { return Distance(word, one) < Distance(word, other); });
    const bool isClose = closest != candidates.end() && Distance(word, *closest) <= kMaxDistance;
    const auto longer = std::find_if(candidates.begin(), candidates.end(),
                                     [&word](const std::string& candidate)
                                     { return candidate.rfind(word + "-", 0) == 0; });
    const auto found = isClose ? closest : longer;
    return found == candidates.end() ? "" : "; did you mean '" + *found + "'?";
}

}  // namespace corpdir_tool
