// Settings of the layers below, from the plan: log, limits, certificate names.
#ifndef CORPDIR_TOOL_LAYER_SETTINGS_H
#define CORPDIR_TOOL_LAYER_SETTINGS_H

#include <string.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

#include "cli/options.h"
#include "cli/servers.h"
#include "corpdir_loginfo.h"
#include "exit_error.h"

namespace corpdir_tool
{

// Copies a text into a zeroed field of a record. The plan has checked that it fits.
template <std::size_t kSize>
void CopyText(char (&field)[kSize], std::string_view text)
{
    memcpy(field, text.data(), std::min(text.size(), kSize - 1));
}

tag_CORPDIR_LOGINFO LogSettingsOf(const Options& options);

// The error for a log that cannot be opened. code: an errno value.
ExitError LogError(const Options& options, unsigned int code);

// Sets the limits of the FTP layer. fileBytes: 0 for the layer's own limit. Throws ExitError.
void SetLimits(const Plan& plan, std::uint64_t fileBytes);

// Registers the names that the certificate of each server may carry. Throws ExitError.
void RegisterServers(const std::vector<Server>& servers, const Plan& plan);

}  // namespace corpdir_tool

#endif
