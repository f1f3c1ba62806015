#include "local_files.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <thread>

#include "base/mutex.h"
#include "zep/digest.h"

namespace client
{

namespace
{

using File = Staging::File;

// Time for the lock: a commit is worth a wait, a note is not.
constexpr std::chrono::seconds kCommitPatience{30};
constexpr std::chrono::seconds kNotePatience{1};

// Bytes of the reason of a failure that are kept.
constexpr std::size_t kMaxReason = 1000;

[[noreturn]] void Fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::string Quoted(const std::string& path)
{
    return "'" + path + "'";
}

std::int64_t Now()
{
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// A rename lasts when its folder is on the disk.
void FlushFolder(const std::string& folder)
{
    const base::Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot flush a folder, and need not.
    if (!opened.IsOpen() || (fsync(opened.Number()) != 0 && errno != EINVAL))
    {
        Fail("cannot flush " + Quoted(folder));
    }
}

void WriteAll(int file, const std::string& text, const std::string& path)
{
    for (std::size_t written = 0; written != text.size();)
    {
        const ssize_t count = write(file, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR)
        {
            Fail("cannot write " + Quoted(path));
        }
        written += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
}

void Rename(const std::string& from, const std::string& to)
{
    if (rename(from.c_str(), to.c_str()) != 0)
    {
        Fail("cannot replace " + Quoted(to));
    }
}

// A file of its own: what another user put there is neither followed nor written.
base::Descriptor Create(const std::string& path)
{
    (void)unlink(path.c_str());
    base::Descriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.IsOpen())
    {
        Fail("cannot create " + Quoted(path));
    }
    return file;
}

bool IsBefore(const std::timespec& one, const std::timespec& other)
{
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

}  // namespace

Digest DigestOf(const std::string& path)
{
    constexpr char kDigits[] = "0123456789abcdef";
    Digest digest;
    const base::Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat state = {};
    unsigned char bytes[32];
    if (!file.IsOpen() || fstat(file.Number(), &state) != 0 || !S_ISREG(state.st_mode) ||
        !zep::Sha256OfFile(file.Number(), bytes, digest.size))
    {
        return {};
    }
    for (const unsigned char byte : bytes)
    {
        digest.sha256 += {kDigits[byte >> 4U], kDigits[byte & 0xFU]};
    }
    return digest;
}

// The lock of a directory file is that of its state file. A commit replaces the state file, so the
// lock counts only while the path leads to the locked file.
class LocalFiles::Lock
{
public:
    Lock(const std::string& path, std::chrono::seconds patience)
    {
        const base::Clock::time_point deadline = base::Clock::now() + patience;
        while (!Try(path))
        {
            if (base::Clock::now() > deadline)
            {
                errno = EWOULDBLOCK;
                Fail("another process keeps " + Quoted(path) + " locked");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

private:
    bool Try(const std::string& path)
    {
        constexpr int kFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        m_file = base::Descriptor(open(path.c_str(), O_RDWR | O_CREAT | kFlags, 0666));
        if (!m_file.IsOpen() && errno == EACCES)  // another user's
        {
            m_file = base::Descriptor(open(path.c_str(), O_RDONLY | kFlags));
        }
        if (!m_file.IsOpen())
        {
            const int error = errno;
            // The folder decides who may replace a state that cannot be read, or a link.
            if ((error == EACCES || error == ELOOP) && unlink(path.c_str()) == 0)
            {
                return false;
            }
            errno = error;
            Fail("cannot open " + Quoted(path));
        }
        struct stat locked = {};
        struct stat found = {};
        switch (TryLock(m_file.Number()))
        {
            case LockResult::kHeld:
                return false;
            case LockResult::kFailed:
                Fail("cannot lock " + Quoted(path));
            default:
                return fstat(m_file.Number(), &locked) == 0 && stat(path.c_str(), &found) == 0 &&
                       locked.st_ino == found.st_ino && locked.st_dev == found.st_dev;
        }
    }

    base::Descriptor m_file;
};

LocalFiles::LocalFiles(const Settings& settings, const Staging& directories,
                       const Staging& versions)
    : m_settings(settings),
      m_directories(directories),
      m_versions(versions),
      m_statePath(settings.directoryFolder + StateName(settings.directoryName))
{
}

std::string LocalFiles::Current(std::string& warning) const
{
    const State known = Known(warning);
    if (known.version.empty())
    {
        return "";
    }
    if (DigestOf(m_settings.DirectoryPath()) == Digest{known.size, known.sha256})
    {
        return known.version;
    }
    warning = Quoted(m_settings.DirectoryPath()) + " is missing, or not the file that was fetched";
    return "";
}

// An empty state when there is none.
State LocalFiles::Known(std::string& warning) const
{
    std::string problem;
    const std::optional<State> known = ReadState(m_statePath, problem);
    if (!problem.empty())
    {
        warning = Quoted(m_statePath) + " is not used: " + problem;
    }
    return known.value_or(State());
}

Commit LocalFiles::Replace(const Arrival& arrival)
{
    const Digest arrived = DigestOf(arrival.path);
    if (arrived.sha256.empty())
    {
        Fail("cannot read " + Quoted(arrival.path));
    }
    const Lock lock(m_statePath, kCommitPatience);
    Commit commit;
    State state = Known(commit.warning);
    commit.size = arrived.size;
    commit.unchanged = state.version == *arrival.version.version && state.size == arrived.size &&
                       DigestOf(m_settings.DirectoryPath()) == arrived;
    if (commit.unchanged)
    {
        (void)unlink(arrival.path.c_str());
        RestoreVersion(arrival.version, arrival.read);
    }
    else
    {
        ReplaceBoth(arrival);
        state.server = arrival.server;
        state.fetched = Now();
    }
    state.version = *arrival.version.version;
    state.size = arrived.size;
    state.sha256 = arrived.sha256;
    state.checked = state.confirmed = Now();
    state.outcome = commit.unchanged ? "unchanged" : "fetched";
    state.reason.clear();
    state.failures = 0;
    const std::string problem = WriteState(state);
    if (!problem.empty())
    {
        commit.warning = problem;
        (void)unlink(m_statePath.c_str());  // it describes the files of before
    }
    FlushFolders();
    return commit;
}

// The version file at most as new as the directory file, at every moment.
void LocalFiles::ReplaceBoth(const Arrival& arrival) const
{
    const bool versionFirst = LocalVersionIsNewer(arrival.read);
    if (versionFirst)
    {
        WriteVersion(arrival.version, arrival.read);
        FlushFolder(m_settings.versionFolder);
    }
    const base::Descriptor file(open(arrival.path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    SetPermissions(file.Number(), m_settings.DirectoryPath());
    Rename(arrival.path, m_settings.DirectoryPath());
    FlushFolder(m_settings.directoryFolder);
    if (!versionFirst)
    {
        WriteVersion(arrival.version, arrival.read);
    }
}

// Somebody else may have removed or changed the version file.
void LocalFiles::RestoreVersion(const VersionFile& version, const std::timespec& read) const
{
    if (ReadVersionFile(m_settings.VersionPath()).bytes != version.bytes)
    {
        WriteVersion(version, read);
    }
}

void LocalFiles::FlushFolders() const
{
    FlushFolder(m_settings.directoryFolder);
    if (m_settings.versionFolder != m_settings.directoryFolder)
    {
        FlushFolder(m_settings.versionFolder);
    }
}

unsigned int LocalFiles::Failures() const
{
    std::string warning;
    return Known(warning).failures;
}

std::uint64_t LocalFiles::Size() const
{
    struct stat local = {};
    return stat(m_settings.DirectoryPath().c_str(), &local) == 0
               ? static_cast<std::uint64_t>(local.st_size)
               : 0;
}

bool LocalFiles::HasVersion(const std::string& version) const
{
    std::string warning;
    return IsOf(Known(warning), version);
}

// True when the state has this version, and the local directory file the state's size.
bool LocalFiles::IsOf(const State& state, const std::string& version) const
{
    struct stat local = {};
    return state.version == version && stat(m_settings.DirectoryPath().c_str(), &local) == 0 &&
           S_ISREG(local.st_mode) && static_cast<std::uint64_t>(local.st_size) == state.size;
}

bool LocalFiles::NoteUnchanged(const VersionFile& version, const std::timespec& read,
                               std::string& warning)
{
    try
    {
        const Lock lock(m_statePath, kNotePatience);
        State state = Known(warning);
        if (!IsOf(state, *version.version))
        {
            return false;
        }
        RestoreVersion(version, read);
        state.checked = state.confirmed = Now();
        state.outcome = "unchanged";
        state.reason.clear();
        state.failures = 0;
        warning = WriteState(state);
    }
    catch (const std::system_error& error)
    {
        warning = error.what();
    }
    return true;
}

std::string LocalFiles::NoteCommand(bool due)
{
    return Note([due](State& state) { state.commandDue = due; });
}

std::string LocalFiles::NoteFailure(const std::string& reason)
{
    return Note(
        [&reason](State& state)
        {
            state.checked = Now();
            state.outcome = "failed";
            state.reason = reason.substr(0, kMaxReason);
            ++state.failures;
        });
}

// Changes the state. Returns a warning, or an empty text.
template <typename Change>
std::string LocalFiles::Note(const Change& change)
{
    try
    {
        const Lock lock(m_statePath, kNotePatience);
        std::string warning;
        State state = Known(warning);
        change(state);
        const std::string problem = WriteState(state);
        return problem.empty() ? warning : problem;
    }
    catch (const std::system_error& error)
    {
        return error.what();
    }
}

// The time of its version file is the time at which its version was read from the server. A time to
// come is that of a clock that was wrong.
bool LocalFiles::LocalVersionIsNewer(const std::timespec& read) const
{
    struct stat local = {};
    std::timespec now = {};
    return lstat(m_settings.VersionPath().c_str(), &local) == 0 && S_ISREG(local.st_mode) &&
           clock_gettime(CLOCK_REALTIME, &now) == 0 && IsBefore(read, local.st_mtim) &&
           !IsBefore(now, local.st_mtim);
}

void LocalFiles::WriteVersion(const VersionFile& version, const std::timespec& read) const
{
    const std::string path = m_versions.Path(File::kNew);
    const base::Descriptor file = Create(path);
    WriteAll(file.Number(), version.bytes, path);
    SetPermissions(file.Number(), m_settings.VersionPath());
    const std::timespec times[2] = {read, read};
    if (futimens(file.Number(), times) != 0 || fsync(file.Number()) != 0)
    {
        Fail("cannot write " + Quoted(path));
    }
    Rename(path, m_settings.VersionPath());
}

// The permissions, and where permitted the owner, of the file at this path; those of a new file
// when there is none.
void LocalFiles::SetPermissions(int file, const std::string& path) const
{
    struct stat replaced = {};
    mode_t mode = m_directories.NewFileMode();
    if (lstat(path.c_str(), &replaced) == 0 && S_ISREG(replaced.st_mode))
    {
        // The owner first: a change of owner may clear bits of the mode.
        if (fchown(file, replaced.st_uid, replaced.st_gid) != 0)
        {
            (void)!fchown(file, static_cast<uid_t>(-1), replaced.st_gid);
        }
        mode = replaced.st_mode & 0777;
    }
    if (fchmod(file, mode) != 0)
    {
        Fail("cannot set the permissions of the new " + Quoted(path));
    }
}

// Not flushed: a state that is lost or old only means one fetch more. Returns a warning.
std::string LocalFiles::WriteState(const State& state) const
{
    try
    {
        const std::string path = m_directories.Path(File::kNew);
        const base::Descriptor file = Create(path);
        WriteAll(file.Number(), StateText(state), path);
        SetPermissions(file.Number(), m_settings.DirectoryPath());
        Rename(path, m_statePath);
        return {};
    }
    catch (const std::system_error& error)
    {
        return error.what();
    }
}

}  // namespace client
