// The state file of a directory file: its version and where it came from.
#ifndef CORPDIR_CLIENT_STATE_H
#define CORPDIR_CLIENT_STATE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace client
{

// What is known of a local directory file; kept beside it, in .NAME.corpdir.json.
struct State
{
    std::string version;       // bytes as the server gave them; empty: none was ever fetched
    std::uint64_t size = 0;    // of the directory file, bytes
    std::string sha256;        // 64 lower-case hex digits; empty: none
    std::string server;        // label of the server that gave it
    std::int64_t fetched = 0;  // seconds since 1970, UTC; 0: never
    std::int64_t confirmed =
        0;  // end of the last check that fetched it or found it unchanged; 0: none
    std::int64_t checked = 0;    // end of the last check; 0: none
    std::string outcome;         // of the last check: "fetched", "unchanged", "failed"; empty: none
    std::string reason;          // why the last check failed; empty: it did not, or not known
    std::uint32_t failures = 0;  // failed checks in a row
    bool commandDue = false;     // the command for this version has not succeeded yet
};

constexpr std::string_view kStatePrefix = ".";
constexpr std::string_view kStateSuffix = ".corpdir.json";

// The longest name of a directory file for which the state's name fits into 255 bytes.
constexpr std::size_t kMaxDirectoryName = 255 - kStatePrefix.size() - kStateSuffix.size();

// ".NAME.corpdir.json"
std::string StateName(const std::string& directoryName);

// Nothing when there is no such file or it is empty (`problem` is empty then), or when it cannot be
// used: `problem` says why. Never blocks on a file that is not a regular one. Any thread. Throws
// std::bad_alloc.
std::optional<State> ReadState(const std::string& path, std::string& problem);

// The text of the file, with a final newline. Throws std::bad_alloc.
std::string StateText(const State& state);

// "2026-11-21T17:30:00Z"; empty for 0.
std::string TimeText(std::int64_t secondsSince1970);

}  // namespace client

#endif
