#include "request.h"

#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "base/printable.h"
#include "sealed_password.h"
#include "server_names.h"
#include "staging.h"
#include "state.h"

namespace corpdir_c
{

namespace
{

// Bytes that fit: a field of the service's record, and the FTP layer's own narrower ones.
constexpr std::size_t kMaxField = 255;
constexpr std::size_t kMaxLogin = 127;
constexpr std::size_t kMaxDirectory = 127;

constexpr std::uint32_t kMaxPort = 65535;
constexpr std::uint32_t kMaxLevel = 2;
constexpr std::uint32_t kMaxConnectSeconds = 3600;
constexpr std::uint32_t kMaxRetrySeconds = 86400;
constexpr std::uint32_t kUsualRetrySeconds = 60;
constexpr std::size_t kMaxGrowth = 1024;  // a larger size of a record was not set

// The record in version 1.0.
constexpr std::size_t kFirstRequest = offsetof(corpdir_request, certificate_names);

// True for a record of this header, or of an earlier one with at least `first` bytes, and for a
// longer one of a later header whose further members are zero, which asks for this library's
// defaults.
template <class T>
bool IsKnown(const T& record, std::size_t first = sizeof(T))
{
    if (record.size < first || record.size > sizeof record + kMaxGrowth)
    {
        return false;
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&record);
    return std::all_of(bytes + std::min(sizeof record, record.size), bytes + record.size,
                       [](unsigned char byte) { return byte == 0; });
}

// A text of 1 to limit bytes without control bytes; empty for any other one.
std::string_view TextOf(const char* text, std::size_t limit)
{
    const std::size_t length = text == nullptr ? 0 : strnlen(text, limit + 1);
    const bool usable = length <= limit && std::none_of(text, text + length, base::IsControlByte);
    return usable ? std::string_view(text, length) : std::string_view();
}

bool Take(const char* text, std::size_t limit, std::string& to)
{
    to = TextOf(text, limit);
    return !to.empty();
}

// With a closing "/".
bool TakeFolder(const char* text, std::string& to)
{
    const bool usable = Take(text, kMaxDirectory, to);
    to += usable && to.back() != '/' ? "/" : "";
    return usable && to.size() <= kMaxDirectory;
}

bool TakeServerFile(const char* text, std::string& to)
{
    return Take(text, kMaxField, to) && to.back() != '/';
}

// A local name; a null one is the last part of the server's.
bool TakeName(const char* text, const std::string& serverFile, std::size_t limit, std::string& to)
{
    const std::string last = serverFile.substr(serverFile.rfind('/') + 1);
    return Take(text != nullptr ? text : last.c_str(), limit, to) &&
           to.find('/') == std::string::npos && to != "." && to != ".." &&
           !client::Staging::IsReserved(to);
}

// "'a b' is neither ...", or nothing for a text that cannot be shown.
std::string Unusable(const char* member, const std::string& text, const char* problem)
{
    const bool shown = std::none_of(text.begin(), text.end(), base::IsControlByte);
    return shown ? std::string(member) + ": '" + text + "' " + problem : "";
}

Answer ReadServers(const corpdir_request& record, client::Settings& settings)
{
    if (record.servers == nullptr)
    {
        return {CORPDIR_ERR_SERVERS, ""};
    }
    for (const std::string& text : client::SplitList(record.servers))
    {
        client::ServerEntry entry;
        if (std::any_of(text.begin(), text.end(), base::IsControlByte))
        {
            return {CORPDIR_ERR_SERVERS, ""};
        }
        switch (client::ReadEntry(text, entry))
        {
            case client::EntryProblem::kEmpty:
                return {CORPDIR_ERR_SERVERS, "servers: an entry is empty"};
            case client::EntryProblem::kZeroAddress:
                return {CORPDIR_ERR_SERVERS,
                        "servers: " + entry.text + " is the unspecified address, not a server"};
            case client::EntryProblem::kNeither:
                return {CORPDIR_ERR_SERVERS,
                        Unusable("servers", entry.text, "is neither an address nor a host name")};
            case client::EntryProblem::kNone:
                settings.servers.push_back(entry);
        }
    }
    if (record.local_address == nullptr || *record.local_address == '\0')
    {
        return {};
    }
    settings.localAddress = record.local_address;
    settings.family = client::FamilyOf(record.local_address);
    if (settings.family == AF_UNSPEC)
    {
        return {CORPDIR_ERR_LOCAL_ADDRESS, ""};
    }
    for (const client::ServerEntry& entry : settings.servers)
    {
        if (entry.isAddress && client::FamilyOf(entry.text.c_str()) != settings.family)
        {
            return {CORPDIR_ERR_LOCAL_ADDRESS,
                    "local_address: not of the family of the server " + entry.text};
        }
    }
    return {};
}

Answer ReadLogin(const corpdir_request& record, client::Settings& settings)
{
    if (!Take(record.user, kMaxLogin, settings.user))
    {
        return {CORPDIR_ERR_USER, ""};
    }
    const std::string_view password = TextOf(record.password, kMaxLogin);
    if (password.empty())
    {
        return {CORPDIR_ERR_PASSWORD, ""};
    }
    settings.readPassword = [sealed = std::make_shared<const client::SealedPassword>(password)](
                                client::Secret& to, bool) { sealed->Open(to); };
    return {};
}

Answer ReadFiles(const corpdir_request& record, client::Settings& settings)
{
    if (!TakeServerFile(record.version_file, settings.versionFile))
    {
        return {CORPDIR_ERR_VERSION_FILE, ""};
    }
    // The service distinguishes the two by their names.
    if (!TakeServerFile(record.directory_file, settings.directoryFile))
    {
        return {CORPDIR_ERR_DIRECTORY_FILE, ""};
    }
    if (settings.directoryFile == settings.versionFile)
    {
        return {CORPDIR_ERR_DIRECTORY_FILE, "directory_file: the same as version_file"};
    }
    if (!TakeFolder(record.directory_dir, settings.directoryFolder))
    {
        return {CORPDIR_ERR_DIRECTORY_DIR, ""};
    }
    if (!TakeName(record.directory_name, settings.directoryFile, client::kMaxDirectoryName,
                  settings.directoryName))
    {
        return {CORPDIR_ERR_DIRECTORY_NAME,
                record.directory_name != nullptr
                    ? ""
                    : "directory_file: its last part is not a local name of 1 to 241 bytes; set "
                      "directory_name"};
    }
    if (!TakeFolder(record.version_dir != nullptr ? record.version_dir : record.directory_dir,
                    settings.versionFolder))
    {
        return {CORPDIR_ERR_VERSION_DIR, ""};
    }
    if (!TakeName(record.version_name, settings.versionFile, kMaxField, settings.versionName) ||
        settings.VersionPath() == settings.DirectoryPath() ||
        settings.VersionPath() ==
            settings.directoryFolder + client::StateName(settings.directoryName))
    {
        return {CORPDIR_ERR_VERSION_NAME, ""};
    }
    return {};
}

Answer ReadTrust(const corpdir_request& record, client::Settings& settings)
{
    if (!Take(record.trust != nullptr ? record.trust : "system", kMaxField, settings.trust))
    {
        return {CORPDIR_ERR_TRUST, ""};
    }
    if (record.port > kMaxPort)
    {
        return {CORPDIR_ERR_PORT, ""};
    }
    if (record.mode != CORPDIR_MODE_FTPS && record.mode != CORPDIR_MODE_FTP)
    {
        return {CORPDIR_ERR_MODE, ""};
    }
    if (record.without_verification > 1)
    {
        return {CORPDIR_ERR_VERIFICATION, ""};
    }
    settings.port = record.port;
    settings.plain = record.mode == CORPDIR_MODE_FTP;
    settings.verify = record.without_verification == 0;
    if (record.certificate_names != nullptr && *record.certificate_names != '\0')
    {
        settings.names = client::SplitList(record.certificate_names);
    }
    for (const std::string& name : settings.names)
    {
        if (!client::IsHostName(name))
        {
            return {CORPDIR_ERR_NAMES, Unusable("certificate_names", name, "is not a host name")};
        }
    }
    return {};
}

Answer ReadLimits(const corpdir_request& record, client::Settings& settings)
{
    if (record.connect_seconds > kMaxConnectSeconds || record.retry_seconds > kMaxRetrySeconds)
    {
        return {CORPDIR_ERR_TIMES, record.connect_seconds > kMaxConnectSeconds
                                       ? "the time for a connection is above 3600 s"
                                       : "the time until the next check is above 86400 s"};
    }
    settings.connectMs = record.connect_seconds * 1000;
    settings.retry =
        std::chrono::seconds(record.retry_seconds != 0 ? record.retry_seconds : kUsualRetrySeconds);
    settings.maxFileBytes = record.max_file_bytes;
    return {};
}

}  // namespace

bool HasRoom(std::size_t size, std::size_t needed)
{
    return size >= needed && size <= needed + kMaxGrowth;
}

corpdir_code ReadLogSettings(const corpdir_log_settings& settings, tag_CORPDIR_LOGINFO& info)
{
    if (!IsKnown(settings) || settings.reserved != 0)
    {
        return CORPDIR_ERR_ARGUMENT;
    }
    if (settings.directory != nullptr && *settings.directory != '\0')
    {
        const std::string_view directory = TextOf(settings.directory, kMaxField);
        if (directory.empty())
        {
            return CORPDIR_ERR_LOG_DIR;
        }
        directory.copy(info.szLogDir, sizeof info.szLogDir - 1);
    }
    if (settings.level > kMaxLevel)
    {
        return CORPDIR_ERR_LOG_LEVEL;
    }
    info.ulLogLevel = settings.level;
    info.ulMaxFileSize = settings.max_file_bytes;
    info.ulMaxFileCount = settings.max_files;
    return CORPDIR_OK;
}

Answer ReadRequest(const corpdir_request& record, Request& request)
{
    if (!IsKnown(record, kFirstRequest) || record.reserved != 0)
    {
        return {CORPDIR_ERR_ARGUMENT, ""};
    }
    // The members that an earlier record lacks are zero.
    corpdir_request whole = {};
    memcpy(&whole, &record, std::min(record.size, sizeof whole));
    for (const auto read : {ReadServers, ReadLogin, ReadFiles, ReadTrust, ReadLimits})
    {
        Answer answer = read(whole, request.settings);
        if (answer.code != CORPDIR_OK)
        {
            return answer;
        }
    }
    request.edition = record.size == kFirstRequest ? Edition::kFirst : Edition::kCurrent;
    request.callback = whole.on_event;
    request.user = whole.user_data;
    return {};
}

}  // namespace corpdir_c
