// The servers of a list: names are looked up side by side, and each address is registered with the
// names that its certificate may carry.
#ifndef CORPDIR_CLIENT_SERVER_NAMES_H
#define CORPDIR_CLIENT_SERVER_NAMES_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace client
{

// Time for the lookups of one list, all together.
constexpr std::chrono::milliseconds kLookupLimit{10000};

// One entry of a list.
struct ServerEntry
{
    std::string text;        // an address in its usual form, or a host name
    bool isAddress = false;  // false: a host name
};

// One address to ask.
struct Server
{
    std::string address;
    std::string name;                   // the first that gave it; empty when it was listed first
    std::vector<std::string> listed{};  // the entries that gave it

    // "192.0.2.1 (dir.example)", or the address alone.
    std::string Label() const;
};

// The addresses of a name, in the order of preference, or the reason in words why it has none.
struct LookupResult
{
    std::vector<std::string> addresses;
    std::string problem;
};

// Finds the addresses of a host name; family: AF_INET, AF_INET6, or AF_UNSPEC for both. Called on
// several threads at once, some of which may outlive the caller. Throws nothing but std::bad_alloc.
using Lookup = std::function<LookupResult(const std::string& name, int family)>;

// An entry that gave no address, and why.
struct LeftOut
{
    std::string text;
    std::string problem;
};

// The servers to ask, each once, in the order of the list.
struct ResolvedServers
{
    std::vector<Server> servers;
    std::vector<LeftOut> leftOut;
};

// The texts between the ";" of a list, at least one.
std::vector<std::string> SplitList(const std::string& list);

// Why a text is no entry of a list.
enum class EntryProblem
{
    kNone,
    kEmpty,
    kZeroAddress,
    kNeither,  // address nor host name
};

// Reads an entry. Blanks around it are ignored, and brackets around an IPv6 address. entry.text is
// set also when it is no entry.
EntryProblem ReadEntry(const std::string& text, ServerEntry& entry);

// AF_INET or AF_INET6 for the text of an address, else AF_UNSPEC. Takes no memory.
int FamilyOf(const char* text);

// The address in its usual form, also of one in brackets; empty for any other text.
std::string NormalAddress(const std::string& text);

// True for an address in its usual form that means any address: connecting to it would reach this
// machine, and hand it the password.
bool IsZeroAddress(const std::string& address);

// Letters, digits, "-", "_" and "." in labels of 1 to 63 bytes, at most 253 bytes, and not a number
// that only looks like an address.
bool IsHostName(std::string_view text);

// Asks the system's resolver, by the OS layer. Blocks; any thread.
LookupResult SystemLookup(const std::string& name, int family);

// The lookups of one list.
//
// The system's resolver cannot be interrupted. So each name is looked up on a thread that nothing
// waits for: what it uses is owned by it too, and is neither static nor the caller's. A thread that
// is still in the resolver when the process ends does no harm.
class ServerLookup
{
public:
    // Begins the lookups. onDone is called on a thread of the lookup when all names have an answer
    // or memory ran out, but not after the destruction; it may set a flag, and must not throw. With
    // no name to look up it is not called. Throws std::system_error when no thread can be made,
    // std::bad_alloc.
    ServerLookup(std::vector<ServerEntry> entries, int family, Lookup lookup,
                 std::function<void()> onDone = nullptr);
    ~ServerLookup();  // gives up
    ServerLookup(const ServerLookup&) = delete;
    ServerLookup& operator=(const ServerLookup&) = delete;

    // Waits for the names, at most for this time; a name without an answer is left out then. Throws
    // std::bad_alloc, also for a lookup that did. Call it once.
    ResolvedServers Wait(std::chrono::milliseconds limit = kLookupLimit);

    // True when Wait() would not wait.
    bool IsDone() const;

    // As Wait(), after kLookupLimit: for a caller that has waited in another way.
    ResolvedServers Take();

private:
    struct Shared;

    ResolvedServers Collect(std::chrono::milliseconds limit);

    const std::vector<ServerEntry> m_entries;
    const std::shared_ptr<Shared> m_shared;
};

// Registers with the FTP layer the names that the certificate of each server may have: `names`, or
// when it is empty the entries that gave the address. Replaces what was registered before. Call it
// between the start of the service and the request. 0, or the layer's code.
[[nodiscard]] unsigned int RegisterNames(const std::vector<Server>& servers,
                                         const std::vector<std::string>& names);

}  // namespace client

#endif
