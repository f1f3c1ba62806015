// The fixture of the tests of the log.
#ifndef CORPDIR_TESTS_CORPDIR_LOG_FIXTURE_H
#define CORPDIR_TESTS_CORPDIR_LOG_FIXTURE_H

#include "corpdir_log.h"
#include "files.h"

#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace log_test
{
// Settings of a log; 0 means the default.
tag_CORPDIR_LOGINFO Info(const std::string& directory, unsigned int level = 2,
                         unsigned int maxSize = 0, unsigned int maxCount = 0);

unsigned int Open(tag_CORPDIR_LOGINFO info);

std::vector<std::string> SplitLines(const std::string& text);

// A line without its first columns.
std::string AfterColumns(const std::string& line, int columns);

// The lines of a file without their first columns, by default the texts of the records.
std::vector<std::string> TextsIn(const std::string& path, int columns = 6);

// False also when the file is missing.
bool Contains(const std::string& path, const std::string& text);

// Writes a record with module "mod", function "func", file "file.cpp", line 7.
template <typename... Arguments>
void Write(unsigned int level, const char* format, Arguments... arguments)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    g_LogOne->WriteLog("mod", "func", "file.cpp", 7, level, format, arguments...);
#pragma GCC diagnostic pop
}

// Runs the body in a child process. The status is that of exit, 128 plus a signal's number, or -1
// when the child did not end within 30 s.
class Child
{
public:
    explicit Child(const std::function<void()>& body);  // then exit(0)
    ~Child();                                           // kills it
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Id() const
    {
        return m_id;
    }
    int Wait();

private:
    pid_t m_id;
};

// A disk that does not answer a call of the log's thread. For a test's replacement of a function of
// the C library.
struct Stall
{
    std::atomic<bool> isOn{false};
    std::atomic<bool> isHit{false};

    void Begin();
    void Pass();  // in the replacement
};

// Redirects standard error to a file for a scope.
class CaughtStandardError
{
public:
    CaughtStandardError();
    ~CaughtStandardError();
    CaughtStandardError(const CaughtStandardError&) = delete;
    CaughtStandardError& operator=(const CaughtStandardError&) = delete;

    std::string Text() const;

private:
    support::TemporaryDirectory m_directory;
    int m_saved;
};

// Makes standard error a pipe that is not read, so that the log's thread stops as it would on a
// disk that does not answer.
class StuckStandardError
{
public:
    StuckStandardError();
    ~StuckStandardError();
    StuckStandardError(const StuckStandardError&) = delete;
    StuckStandardError& operator=(const StuckStandardError&) = delete;

    void Fill();  // with bytes of the test, until nothing more fits

    // Reads the pipe while the action runs, then restores standard error; everything read.
    std::string ReadDuring(const std::function<void()>& action);

private:
    void Restore();

    int m_read = -1;
    int m_saved = -1;
};

// A directory for a log, which is closed at the end.
class LogTest : public testing::Test
{
protected:
    ~LogTest() override
    {
        g_LogMode = 0;
        CorpDir_CloseLog();
    }

    const std::string& Directory() const
    {
        return m_directory.Path();
    }
    std::string File(const std::string& name = "corpdir.log") const
    {
        return m_directory.File(name);
    }
    // Closes the log, then as TextsIn.
    std::vector<std::string> ClosedTexts(int columns = 6);

private:
    support::TemporaryDirectory m_directory;
};

}  // namespace log_test

#endif
