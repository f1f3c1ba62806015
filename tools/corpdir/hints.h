// What to do about a failure.
#ifndef CORPDIR_TOOL_HINTS_H
#define CORPDIR_TOOL_HINTS_H

#include <string>

namespace corpdir_tool
{

// A sentence for a result of the FTP layer (tagTRAVEX_FTP_RESULT); empty when there is nothing to
// advise.
std::string HintFor(unsigned int code);

}  // namespace corpdir_tool

#endif
