#include "server_names.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <system_error>
#include <utility>

#include "base/thread.h"
#include "osak.h"
#include "travex_ftp.h"

namespace client
{

namespace
{

constexpr std::size_t kMaxName = 253;
constexpr std::size_t kMaxLabel = 63;
constexpr std::size_t kMaxThreads = 256;  // further names wait for one of them

std::string AddressText(int family, const void* bytes)
{
    char text[INET6_ADDRSTRLEN] = "";
    return inet_ntop(family, bytes, text, sizeof text) == nullptr ? std::string() : text;
}

bool IsLabel(std::string_view label)
{
    const auto allowed = [](char byte)
    {
        return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
               (byte >= '0' && byte <= '9') || byte == '-' || byte == '_';
    };
    return !label.empty() && label.size() <= kMaxLabel &&
           std::all_of(label.begin(), label.end(), allowed);
}

// A last label that is a number makes the system's resolver read "10.1" or "0x7f.1" as an address.
bool IsNumber(std::string_view label)
{
    const bool hexadecimal = label.substr(0, 2) == "0x" || label.substr(0, 2) == "0X";
    return label.find_first_not_of(hexadecimal ? "0123456789abcdefABCDEFxX" : "0123456789") ==
           std::string_view::npos;
}

std::string LookupProblem(int result)
{
    // EAI_SYSTEM means that the reason is in errno.
    return result == EAI_SYSTEM ? std::generic_category().message(errno) : gai_strerror(result);
}

std::string AddressOf(const addrinfo& entry)
{
    if (entry.ai_family == AF_INET)
    {
        sockaddr_in address;
        std::memcpy(&address, entry.ai_addr, sizeof address);
        return AddressText(AF_INET, &address.sin_addr);
    }
    if (entry.ai_family == AF_INET6)
    {
        sockaddr_in6 address;
        std::memcpy(&address, entry.ai_addr, sizeof address);
        return AddressText(AF_INET6, &address.sin6_addr);
    }
    return {};
}

// The names of a list, each once.
std::vector<std::string> NamesOf(const std::vector<ServerEntry>& entries)
{
    std::vector<std::string> names;
    for (const ServerEntry& entry : entries)
    {
        if (!entry.isAddress)
        {
            names.push_back(entry.text);
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

std::string NoAnswer(std::chrono::milliseconds limit)
{
    char text[64] = "";
    (void)std::snprintf(text, sizeof text, "no answer from the resolver within %g s",
                        static_cast<double>(limit.count()) / 1000.0);
    return text;
}

// Keeps the first of equal addresses: a second request to one server gives nothing new.
class ServerList
{
public:
    void Add(const std::string& address, const ServerEntry& entry)
    {
        const auto [place, isNew] = m_places.emplace(address, servers.size());
        if (isNew)
        {
            servers.push_back({address, entry.isAddress ? "" : entry.text, {}});
        }
        std::vector<std::string>& listed = servers[place->second].listed;
        if (std::find(listed.begin(), listed.end(), entry.text) == listed.end())
        {
            listed.push_back(entry.text);
        }
    }

    std::vector<Server> servers;

private:
    std::map<std::string, std::size_t> m_places;
};

}  // namespace

std::string Server::Label() const
{
    return name.empty() ? address : address + " (" + name + ")";
}

std::vector<std::string> SplitList(const std::string& list)
{
    std::vector<std::string> texts;
    std::size_t begin = 0;
    for (std::size_t end = list.find(';'); end != std::string::npos; end = list.find(';', begin))
    {
        texts.push_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    texts.push_back(list.substr(begin));
    return texts;
}

EntryProblem ReadEntry(const std::string& text, ServerEntry& entry)
{
    constexpr char kBlanks[] = " \t";
    const std::size_t begin = text.find_first_not_of(kBlanks);
    entry = {};
    if (begin == std::string::npos)
    {
        return EntryProblem::kEmpty;
    }
    entry.text = text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
    const std::string address = NormalAddress(entry.text);
    if (address.empty())
    {
        return IsHostName(entry.text) ? EntryProblem::kNone : EntryProblem::kNeither;
    }
    entry = {address, true};
    return IsZeroAddress(address) ? EntryProblem::kZeroAddress : EntryProblem::kNone;
}

int FamilyOf(const char* text)
{
    unsigned char bytes[16];
    if (inet_pton(AF_INET, text, bytes) == 1)
    {
        return AF_INET;
    }
    return inet_pton(AF_INET6, text, bytes) == 1 ? AF_INET6 : AF_UNSPEC;
}

std::string NormalAddress(const std::string& text)
{
    const bool inBrackets = text.size() > 2 && text.front() == '[' && text.back() == ']';
    const std::string inner = inBrackets ? text.substr(1, text.size() - 2) : text;
    const int family = FamilyOf(inner.c_str());
    unsigned char bytes[16] = {};
    if (family == AF_UNSPEC || (inBrackets && family == AF_INET) ||
        inet_pton(family, inner.c_str(), bytes) != 1)
    {
        return {};
    }
    return AddressText(family, bytes);
}

bool IsZeroAddress(const std::string& address)
{
    return address == "0.0.0.0" || address == "::" || address == "::ffff:0.0.0.0";
}

bool IsHostName(std::string_view text)
{
    if (text.empty() || text.size() > kMaxName)
    {
        return false;
    }
    if (text.size() > 1 && text.back() == '.')
    {
        text.remove_suffix(1);  // "dir.example." names the same host
    }
    for (;;)
    {
        const std::size_t end = text.find('.');
        if (!IsLabel(text.substr(0, end)))
        {
            return false;
        }
        if (end == std::string_view::npos)
        {
            return !IsNumber(text);
        }
        text.remove_prefix(end + 1);
    }
}

LookupResult SystemLookup(const std::string& name, int family)
{
    addrinfo hints = {};
    // One socket type, so that each address comes once. Addresses of a family that this machine has
    // no route for are kept: they fail at once, and a loopback-only machine has no other.
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    LookupResult found;
    if (const int result = OSAK_GetAddrInfo(name.c_str(), nullptr, &hints, &list); result != 0)
    {
        found.problem = LookupProblem(result);
        return found;
    }
    const std::unique_ptr<addrinfo, decltype(&OSAK_FreeAddrInfo)> owner(list, &OSAK_FreeAddrInfo);
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next)
    {
        const std::string address = AddressOf(*entry);
        if (!address.empty() && !IsZeroAddress(address))
        {
            found.addresses.push_back(address);
        }
    }
    if (found.addresses.empty())
    {
        found.problem = "no usable address";
    }
    return found;
}

// Owned by the lookup and by each of its threads.
struct ServerLookup::Shared
{
    Shared(std::vector<std::string> allNames, int ofFamily, Lookup how,
           std::function<void()> whenDone)
        : names(std::move(allNames)),
          family(ofFamily),
          lookup(std::move(how)),
          onDone(std::move(whenDone))
    {
    }

    const std::vector<std::string> names;
    const int family;
    const Lookup lookup;
    const std::function<void()> onDone;

    std::mutex mutex;  // guards the rest
    std::condition_variable changed;
    std::map<std::string, LookupResult> results;
    std::size_t begun = 0;  // names that a thread has taken
    bool givenUp = false;   // nothing more is wanted
    bool outOfMemory = false;

    bool Done() const
    {
        return outOfMemory || results.size() == names.size();
    }

    const std::string* NextName()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return givenUp || begun == names.size() ? nullptr : &names[begun++];
    }

    // The body of each thread.
    void Work() noexcept
    {
        while (const std::string* const name = NextName())
        {
            try
            {
                LookupResult found = lookup(*name, family);
                const std::lock_guard<std::mutex> lock(mutex);
                results.emplace(*name, std::move(found));
                ReportDone();
            }
            catch (const std::bad_alloc&)
            {
                const std::lock_guard<std::mutex> lock(mutex);
                outOfMemory = true;
                ReportDone();
            }
        }
    }

    // Under the lock, so that no call comes after the caller has given up.
    void ReportDone()
    {
        changed.notify_all();
        if (onDone && !givenUp && Done())
        {
            onDone();
        }
    }

    bool IsDone()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return Done();
    }
};

// Fewer threads than asked for do, only later.
ServerLookup::ServerLookup(std::vector<ServerEntry> entries, int family, Lookup lookup,
                           std::function<void()> onDone)
    : m_entries(std::move(entries)),
      m_shared(std::make_shared<Shared>(NamesOf(m_entries), family, std::move(lookup),
                                        std::move(onDone)))
{
    const std::size_t wanted = std::min(m_shared->names.size(), kMaxThreads);
    for (std::size_t made = 0; made != wanted; ++made)
    {
        try
        {
            base::Thread("corpdir-lookup", [shared = m_shared] { shared->Work(); }).Detach();
        }
        catch (const std::system_error&)
        {
            if (made == 0)
            {
                throw;
            }
            break;
        }
    }
}

ServerLookup::~ServerLookup()
{
    const std::lock_guard<std::mutex> lock(m_shared->mutex);
    m_shared->givenUp = true;
}

ResolvedServers ServerLookup::Wait(std::chrono::milliseconds limit)
{
    {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        std::unique_lock<std::mutex> lock(m_shared->mutex);
        m_shared->changed.wait_until(lock, deadline, [this] { return m_shared->Done(); });
    }
    return Collect(limit);
}

ResolvedServers ServerLookup::Take()
{
    return Collect(kLookupLimit);
}

// Nothing is wanted after this. limit: for the reason of a name without an answer.
ResolvedServers ServerLookup::Collect(std::chrono::milliseconds limit)
{
    const std::lock_guard<std::mutex> lock(m_shared->mutex);
    m_shared->givenUp = true;
    if (m_shared->outOfMemory)
    {
        throw std::bad_alloc();
    }
    ServerList list;
    std::vector<LeftOut> leftOut;
    for (const ServerEntry& entry : m_entries)
    {
        if (entry.isAddress)
        {
            list.Add(entry.text, entry);
            continue;
        }
        const auto found = m_shared->results.find(entry.text);
        if (found == m_shared->results.end() || found->second.addresses.empty())
        {
            leftOut.push_back({entry.text, found == m_shared->results.end()
                                               ? NoAnswer(limit)
                                               : found->second.problem});
            continue;
        }
        for (const std::string& address : found->second.addresses)
        {
            list.Add(address, entry);
        }
    }
    return {std::move(list.servers), std::move(leftOut)};
}

bool ServerLookup::IsDone() const
{
    return m_shared->IsDone();
}

unsigned int RegisterNames(const std::vector<Server>& servers,
                           const std::vector<std::string>& names)
{
    unsigned int code = TRAVEX_FTP_SetServerName(0, nullptr, nullptr);
    for (const Server& server : servers)
    {
        const int family = FamilyOf(server.address.c_str());
        unsigned char bytes[16] = {};
        (void)inet_pton(family, server.address.c_str(), bytes);
        for (const std::string& name : names.empty() ? server.listed : names)
        {
            code = code == 0
                       ? TRAVEX_FTP_SetServerName(family == AF_INET6 ? 1 : 0, bytes, name.c_str())
                       : code;
        }
    }
    return code;
}

}  // namespace client
