// "Did you mean": a known word that is close to a misspelt one.
#ifndef CORPDIR_TOOL_SUGGESTION_H
#define CORPDIR_TOOL_SUGGESTION_H

#include <string>
#include <vector>

namespace corpdir_tool
{

// "; did you mean 'candidate'?" for the candidate closest to the word, otherwise for one that
// begins with the word and a "-"; empty when there is none.
std::string Suggestion(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace corpdir_tool

#endif
