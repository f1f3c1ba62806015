// Loaded into Pure-FTPd by LD_PRELOAD: replaces system functions that a test cannot provide.
//
// Its messages, which it writes to the system's log only, go to the file that the variable
// CORPDIR_SYSLOG_FILE names. It insists on dropping supplementary groups: they are dropped where
// that is allowed, and kept where it is not, since it runs as the user who launched it.
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

// Opened when the library is loaded: sessions lose their rights and their root directory.
const int g_file =
    open(getenv("CORPDIR_SYSLOG_FILE"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);

}  // namespace

extern "C"
{
    void openlog(const char*, int, int) {}

    // <syslog.h> turns syslog() into this with -D_FORTIFY_SOURCE. One write per line: sessions are
    // processes.
    __attribute__((format(printf, 3, 4))) void __syslog_chk(int, int, const char* format, ...)
    {
        char line[2048];
        va_list arguments;
        va_start(arguments, format);
        (void)vsnprintf(line, sizeof line - 1, format, arguments);
        va_end(arguments);
        const size_t length = strlen(line);
        line[length] = '\n';
        (void)!write(g_file, line, length + 1);
    }

    int setgroups(size_t count, const gid_t* groups) noexcept
    {
        return geteuid() == 0 ? static_cast<int>(syscall(SYS_setgroups, count, groups)) : 0;
    }

    int initgroups(const char*, gid_t group)
    {
        return setgroups(1, &group);
    }

    // As root it makes one directory, for a list of its clients under /run, where a process that a
    // signal ends leaves its file behind. Without the directory there is no list.
    int mkdir(const char*, mode_t) noexcept
    {
        errno = EACCES;
        return -1;
    }

}  // extern "C"
