// The right to use one log file name in a directory.
#ifndef CORPDIR_LOG_NAME_LOCK_H
#define CORPDIR_LOG_NAME_LOCK_H

#include "base/descriptor.h"

#include <string>

namespace corpdir_log
{
// Several processes may log into one directory: the first one gets corpdir.log, the next ones
// corpdir-2.log and so on. A process that had a name there gets it again if it is free. A name is
// taken by a lock on one byte of the file .corpdir.lock, which stays in the directory when the lock
// is released. The log file itself cannot carry the lock, since rotation renames it. If the lock
// file belongs to another user, user UID has .corpdir-UID.lock, and the names corpdir-uUID.log,
// corpdir-uUID-2.log and so on. If nothing can be locked (a file system without locks, or all names
// taken), the name is corpdir-pPID.log. One thread only.
class NameLock
{
public:
    // Finds a name in every directory that exists. Throws std::system_error when the directory is
    // missing or descriptors ran out, or std::bad_alloc.
    explicit NameLock(const std::string& directory);
    ~NameLock();  // releases the name

    const std::string& FileName() const
    {
        return m_fileName;
    }

    // False when the lock does not hold in this directory: it is another one, or a new one of the
    // same name.
    bool IsFor(const std::string& directory) const;

    // To be called in the child of a fork, which would keep the parent's name taken.
    static void ReleaseInForkedChild();

private:
    bool TakeNameIn(const std::string& directory, const std::string& lockName,
                    const std::string& prefix);
    bool TakeNumber(unsigned int number) const;

    base::Descriptor m_file;  // not open: the name is not locked
    std::string m_lockName;
    std::string m_fileName;
};

}  // namespace corpdir_log

#endif
