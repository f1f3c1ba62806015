/// @file
/// Log settings of the corporate-directory download service.
#ifndef CORPDIR_LOGINFO_H
#define CORPDIR_LOGINFO_H

/// Where the service writes its log, and how much of it. Read only while CorpDirInit runs.
/// Zero the whole record first: every zero field selects the default named beside it.
struct tag_CORPDIR_LOGINFO
{
    char szLogDir[256];       ///< directory of corpdir.log, NUL-terminated; empty: standard error
    unsigned int ulLogLevel;  ///< highest level written: 0 errors, 1 fallbacks too, 2 everything
    unsigned int ulMaxFileSize;   ///< bytes a log file may reach before it is rotated; 0: 10 MiB
    unsigned int ulMaxFileCount;  ///< rotated files kept beside the current one; 0: 5
};

#endif
