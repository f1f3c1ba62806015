// The local directory file, version file and state: read, compared, replaced.
#ifndef CORPDIR_CLIENT_LOCAL_FILES_H
#define CORPDIR_CLIENT_LOCAL_FILES_H

#include <cstdint>
#include <ctime>
#include <string>

#include "settings.h"
#include "staging.h"
#include "state.h"
#include "version_file.h"

namespace client
{

// Size and SHA-256 of a file.
struct Digest
{
    std::uint64_t size = 0;
    std::string sha256;  // 64 hexadecimal digits; empty: the file is missing or cannot be read

    bool operator==(const Digest& other) const
    {
        return !sha256.empty() && sha256 == other.sha256 && size == other.size;
    }
};
Digest DigestOf(const std::string& path);

// A directory file that has arrived, and the version file that was read before it.
struct Arrival
{
    VersionFile version;      // valid
    std::timespec read = {};  // when the version was read, on the system's clock
    std::string path;         // of the directory file: a private name
    std::string server;       // label
};

// The result of Commit().
struct Commit
{
    bool unchanged = false;  // version and directory file are those of before
    std::uint64_t size = 0;  // of the directory file
    std::string warning;     // what went wrong beside it; empty: nothing
};

// Not thread-safe; several processes may use the same files. What they replace is replaced whole,
// under an advisory lock (flock) of the state file.
class LocalFiles
{
public:
    // The settings and the staging must outlive it. versions: in the folder of the version file.
    LocalFiles(const Settings& settings, const Staging& directories, const Staging& versions);

    // The version of the local directory file; empty when the state does not describe that file.
    // warning: why it does not, when there is a state.
    std::string Current(std::string& warning) const;

    // Checks that failed in a row, as the state has it.
    unsigned int Failures() const;

    // The local directory file's size; 0 when it is missing.
    std::uint64_t Size() const;

    // True when state and size of the local directory file are those of this version.
    bool HasVersion(const std::string& version) const;

    // Replaces the directory file, then version file and state. At every moment the version file is
    // at most as new as the directory file: when another process has committed a newer pair
    // meanwhile, the version file goes first. The staged file is gone afterwards. Waits up to 30 s
    // for other processes. Throws std::system_error; the files of before are then in place, or one
    // of the two is new and the version file is the older one, or the folder could not be flushed.
    Commit Replace(const Arrival& arrival);

    // Notes the end of a check that found this version unchanged. A version file that is missing or
    // differs is put back. False, and nothing is done, when the local files are not of this version
    // any more. Adds a warning. Waits up to a second for other processes.
    bool NoteUnchanged(const VersionFile& version, const std::timespec& read, std::string& warning);

    // Notes whether a command is still to be run for the local directory file. Returns a warning,
    // or an empty text. Waits as above.
    std::string NoteCommand(bool due);

    // Notes the end of a check that failed. Returns a warning, or an empty text. Waits as above.
    std::string NoteFailure(const std::string& reason);

private:
    class Lock;

    template <typename Change>
    std::string Note(const Change& change);
    State Known(std::string& warning) const;
    bool IsOf(const State& state, const std::string& version) const;
    void ReplaceBoth(const Arrival& arrival) const;
    void RestoreVersion(const VersionFile& version, const std::timespec& read) const;
    void FlushFolders() const;
    void SetPermissions(int file, const std::string& path) const;
    void WriteVersion(const VersionFile& version, const std::timespec& read) const;
    bool LocalVersionIsNewer(const std::timespec& read) const;
    std::string WriteState(const State& state) const;

    const Settings& m_settings;
    const Staging& m_directories;
    const Staging& m_versions;
    const std::string m_statePath;
};

}  // namespace client

#endif
