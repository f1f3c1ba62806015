#include "servers.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "failure.h"
#include "text.h"

namespace corpdir_tool
{

namespace
{

constexpr std::size_t MAX_NAME = 253;
constexpr std::size_t MAX_LABEL = 63;

std::string AddressText(int family, const void* bytes)
{
    char text[INET6_ADDRSTRLEN] = "";
    return inet_ntop(family, bytes, text, sizeof text) == nullptr ? std::string() : text;
}

// The address in its usual form; empty when the text is none.
std::string NormalAddress(const std::string& text)
{
    unsigned char bytes[16] = {};
    if (inet_pton(AF_INET, text.c_str(), bytes) == 1)
    {
        return AddressText(AF_INET, bytes);
    }
    const bool inBrackets = text.size() > 2 && text.front() == '[' && text.back() == ']';
    const std::string inner = inBrackets ? text.substr(1, text.size() - 2) : text;
    if (inet_pton(AF_INET6, inner.c_str(), bytes) == 1)
    {
        return AddressText(AF_INET6, bytes);
    }
    return {};
}

// Connecting to such an address reaches this machine, and would hand it the password.
bool IsZeroAddress(const std::string& address)
{
    return address == "0.0.0.0" || address == "::" || address == "::ffff:0.0.0.0";
}

std::string WithoutBlanks(const std::string& text)
{
    const char blanks[] = " \t";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
    {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool IsLabel(const std::string& label)
{
    const auto allowed = [](char byte)
    {
        return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
               (byte >= '0' && byte <= '9') || byte == '-' || byte == '_';
    };
    return !label.empty() && label.size() <= MAX_LABEL &&
           std::all_of(label.begin(), label.end(), allowed);
}

// A last label that is a number makes the system's resolver read "10.1" or "0x7f.1" as an address.
bool IsNumber(const std::string& label)
{
    const bool hexadecimal = label.rfind("0x", 0) == 0 || label.rfind("0X", 0) == 0;
    return label.find_first_not_of(hexadecimal ? "0123456789abcdefABCDEFxX" : "0123456789") ==
           std::string::npos;
}

std::vector<std::string> Split(const std::string& text, char separator)
{
    std::vector<std::string> pieces;
    std::size_t start = 0;
    for (std::size_t end = text.find(separator); end != std::string::npos;
         end = text.find(separator, start))
    {
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    pieces.push_back(text.substr(start));
    return pieces;
}

[[noreturn]] void RefuseEntry(const std::string& text)
{
    // What people try most often deserves its own hint.
    const bool hasPort =
        std::count(text.begin(), text.end(), ':') == 1 || text.find("]:") != std::string::npos;
    const bool hasZone = text.find('%') != std::string::npos;
    throw Failure(EXIT_ARGUMENTS, "--servers: '" + Printable(text) +
                                      "' is neither an address nor a host name" +
                                      (hasPort   ? "; the port is given with --port"
                                       : hasZone ? "; an address with a zone cannot be used"
                                                 : ""));
}

ServerEntry MakeEntry(const std::string& text)
{
    const std::string address = NormalAddress(text);
    if (IsZeroAddress(address))
    {
        throw Failure(EXIT_ARGUMENTS, "--servers: " + text + " is not the address of a server");
    }
    if (address.empty() && !IsHostName(text))
    {
        RefuseEntry(text);
    }
    return address.empty() ? ServerEntry{text, false} : ServerEntry{address, true};
}

std::string LookupProblem(int result)
{
    // EAI_SYSTEM means that the reason is in errno.
    return result == EAI_SYSTEM ? SystemMessage(errno) : gai_strerror(result);
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

// Keeps the first of equal addresses: asking one server twice tells nothing new.
void AddServer(const std::string& address, const std::string& name, std::vector<Server>& servers)
{
    const auto same = [&address](const Server& server) { return server.address == address; };
    if (std::none_of(servers.begin(), servers.end(), same))
    {
        servers.push_back({address, name});
    }
}

}  // namespace

std::string Server::Label() const
{
    return name.empty() ? address : address + " (" + name + ")";
}

bool IsHostName(const std::string& text)
{
    if (text.empty() || text.size() > MAX_NAME)
    {
        return false;
    }
    std::vector<std::string> labels = Split(text, '.');
    if (labels.size() > 1 && labels.back().empty())
    {
        labels.pop_back();  // "dir.example." names the same host
    }
    return std::all_of(labels.begin(), labels.end(), IsLabel) && !IsNumber(labels.back());
}

std::vector<ServerEntry> SplitServers(const std::string& list)
{
    std::vector<ServerEntry> entries;
    const std::vector<std::string> pieces = Split(list, ';');
    for (const std::string& piece : pieces)
    {
        const std::string text = WithoutBlanks(piece);
        if (text.empty())
        {
            throw Failure(EXIT_ARGUMENTS, pieces.size() == 1
                                              ? "--servers is empty"
                                              : "--servers: entry " +
                                                    std::to_string(entries.size() + 1) + " of '" +
                                                    Printable(list) + "' is empty");
        }
        entries.push_back(MakeEntry(text));
    }
    return entries;
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
    if (const int result = getaddrinfo(name.c_str(), nullptr, &hints, &list); result != 0)
    {
        found.problem = LookupProblem(result);
        return found;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, &freeaddrinfo);
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
        found.problem = "no address that can be connected to";
    }
    return found;
}

ResolvedServers ResolveServers(const std::vector<ServerEntry>& entries, int family,
                               const Lookup& lookup)
{
    ResolvedServers resolved;
    for (const ServerEntry& entry : entries)
    {
        if (entry.isAddress)
        {
            AddServer(entry.text, "", resolved.servers);
            continue;
        }
        const LookupResult found = lookup(entry.text, family);
        if (found.addresses.empty())
        {
            resolved.problems.push_back(entry.text + ": " + found.problem);
        }
        for (const std::string& address : found.addresses)
        {
            AddServer(address, entry.text, resolved.servers);
        }
    }
    return resolved;
}

}  // namespace corpdir_tool
