#include "request.h"

#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>

#include "base/printable.h"
#include "server_names.h"

namespace corpdir_c
{

namespace
{

// Bytes that fit, without the terminator: a field of the service's record, and the FTP layer's own
// narrower ones.
constexpr std::size_t kMaxField = 255;
constexpr std::size_t kMaxLogin = 127;
constexpr std::size_t kMaxDirectory = 127;

constexpr std::uint32_t kMaxPort = 65535;
constexpr std::uint32_t kMaxLevel = 2;
constexpr std::size_t kMaxGrowth = 1024;  // a larger size of a record was not set

// True for a record of this header, and for a longer one of a later header whose further members
// are zero, which asks for this library's defaults.
template <class T>
bool IsKnown(const T& record)
{
    if (record.size < sizeof record || record.size > sizeof record + kMaxGrowth)
    {
        return false;
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&record);
    return std::all_of(bytes + sizeof record, bytes + record.size,
                       [](unsigned char byte) { return byte == 0; });
}

// Copies a text of 1 to limit bytes without control bytes; false for any other text.
bool Fill(char (&field)[256], const char* text, std::size_t limit)
{
    const std::size_t length = text == nullptr ? 0 : strnlen(text, limit + 1);
    if (length == 0 || length > limit || std::any_of(text, text + length, base::IsControlByte))
    {
        return false;
    }
    memcpy(field, text, length);
    return true;
}

bool EndsInSlash(const char* text)
{
    return text[strlen(text) - 1] == '/';
}

const char* LastPart(const char* path)
{
    const char* const slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

bool IsPlainName(const char* name)
{
    return strchr(name, '/') == nullptr && strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

// Counts the closing "/", which the service adds.
bool FillDirectory(char (&field)[256], const char* directory)
{
    return Fill(field, directory, kMaxDirectory) &&
           strlen(field) + (EndsInSlash(field) ? 0 : 1) <= kMaxDirectory;
}

bool IsServer(const char* begin, const char* end)
{
    return begin != end && static_cast<std::size_t>(end - begin) <= kMaxField &&
           std::none_of(begin, end,
                        [](char byte) { return byte == ' ' || base::IsControlByte(byte); });
}

bool IsServerList(const char* servers)
{
    if (servers == nullptr)
    {
        return false;
    }
    for (const char* begin = servers;;)
    {
        const char* const end = strchrnul(begin, ';');
        if (!IsServer(begin, end))
        {
            return false;
        }
        if (*end == '\0')
        {
            return true;
        }
        begin = end + 1;
    }
}

bool SamePlace(const tag_CORPDIR_DOWNLOADINFO& info)
{
    const auto length = [](const char* directory)
    { return strlen(directory) - (EndsInSlash(directory) ? 1 : 0); };
    const std::size_t common = length(info.szVersionLocalDir);
    return common == length(info.szCorpDirLocalDir) &&
           memcmp(info.szVersionLocalDir, info.szCorpDirLocalDir, common) == 0 &&
           strcmp(info.szVersionLocalFileName, info.szCorpDirLocalFileName) == 0;
}

}  // namespace

corpdir_code ReadLogSettings(const corpdir_log_settings& settings, tag_CORPDIR_LOGINFO& info)
{
    if (!IsKnown(settings) || settings.reserved != 0)
    {
        return CORPDIR_ERR_ARGUMENT;
    }
    const bool named = settings.directory != nullptr && *settings.directory != '\0';
    if (named && !Fill(info.szLogDir, settings.directory, kMaxField))
    {
        return CORPDIR_ERR_LOG_DIR;
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

Request::~Request()
{
    explicit_bzero(&m_info, sizeof m_info);
}

corpdir_code Request::Read(const corpdir_request& request) noexcept
{
    if (!IsKnown(request) || request.reserved != 0)
    {
        return CORPDIR_ERR_ARGUMENT;
    }
    for (const auto step : {&Request::ReadServer, &Request::ReadFiles, &Request::ReadDirectories,
                            &Request::ReadOptions})
    {
        const corpdir_code code = (this->*step)(request);
        if (code != CORPDIR_OK)
        {
            return code;
        }
    }
    return CORPDIR_OK;
}

corpdir_code Request::ReadServer(const corpdir_request& request)
{
    if (!IsServerList(request.servers))
    {
        return CORPDIR_ERR_SERVERS;
    }
    m_info.pszFtpIPs = request.servers;
    if (!Fill(m_info.szUserName, request.user, kMaxLogin))
    {
        return CORPDIR_ERR_USER;
    }
    return Fill(m_info.szPassword, request.password, kMaxLogin) ? CORPDIR_OK : CORPDIR_ERR_PASSWORD;
}

corpdir_code Request::ReadFiles(const corpdir_request& request)
{
    if (!Fill(m_info.szVersionServerFile, request.version_file, kMaxField) ||
        EndsInSlash(m_info.szVersionServerFile))
    {
        return CORPDIR_ERR_VERSION_FILE;
    }
    // The service distinguishes the two by their names.
    if (!Fill(m_info.szCorpDirServerFile, request.directory_file, kMaxField) ||
        EndsInSlash(m_info.szCorpDirServerFile) ||
        strcmp(m_info.szCorpDirServerFile, m_info.szVersionServerFile) == 0)
    {
        return CORPDIR_ERR_DIRECTORY_FILE;
    }
    return CORPDIR_OK;
}

corpdir_code Request::ReadDirectories(const corpdir_request& request)
{
    const auto orElse = [](const char* given, const char* usual)
    { return given != nullptr ? given : usual; };
    if (!FillDirectory(m_info.szCorpDirLocalDir, request.directory_dir))
    {
        return CORPDIR_ERR_DIRECTORY_DIR;
    }
    if (!Fill(m_info.szCorpDirLocalFileName,
              orElse(request.directory_name, LastPart(m_info.szCorpDirServerFile)), kMaxField) ||
        !IsPlainName(m_info.szCorpDirLocalFileName))
    {
        return CORPDIR_ERR_DIRECTORY_NAME;
    }
    if (!FillDirectory(m_info.szVersionLocalDir,
                       orElse(request.version_dir, m_info.szCorpDirLocalDir)))
    {
        return CORPDIR_ERR_VERSION_DIR;
    }
    if (!Fill(m_info.szVersionLocalFileName,
              orElse(request.version_name, LastPart(m_info.szVersionServerFile)), kMaxField) ||
        !IsPlainName(m_info.szVersionLocalFileName) || SamePlace(m_info))
    {
        return CORPDIR_ERR_VERSION_NAME;
    }
    return CORPDIR_OK;
}

corpdir_code Request::ReadOptions(const corpdir_request& request)
{
    // Null would keep the earlier request's address.
    m_info.pszLocalIP = request.local_address != nullptr ? request.local_address : "";
    if (*m_info.pszLocalIP != '\0' && client::FamilyOf(m_info.pszLocalIP) == AF_UNSPEC)
    {
        return CORPDIR_ERR_LOCAL_ADDRESS;
    }
    if (!Fill(m_info.szFtpCtrlInfo, request.trust != nullptr ? request.trust : "system", kMaxField))
    {
        return CORPDIR_ERR_TRUST;
    }
    if (request.port > kMaxPort)
    {
        return CORPDIR_ERR_PORT;
    }
    if (request.mode != CORPDIR_MODE_FTPS && request.mode != CORPDIR_MODE_FTP)
    {
        return CORPDIR_ERR_MODE;
    }
    if (request.without_verification > 1)
    {
        return CORPDIR_ERR_VERIFICATION;
    }
    m_info.ulPort = request.port;
    m_info.ulFtpMode = request.mode;
    m_info.ulCertVerify = 1 - request.without_verification;
    return CORPDIR_OK;
}

}  // namespace corpdir_c
