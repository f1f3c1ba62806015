#include "captured_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace
{
struct Store
{
    std::mutex guard;
    std::vector<captured_log::Record> records;
    std::string directory;
};

// Never destroyed: layers log while the process exits.
Store& TheStore()
{
    static Store& s_store = *new Store;
    return s_store;
}

CCorpDirLog s_log;

}  // namespace

CCorpDirLog* g_LogOne = &s_log;
unsigned int g_LogMode = 0;

void CCorpDirLog::WriteLog(const char* module, const char* /*function*/, const char* /*file*/,
                           unsigned int /*line*/, unsigned int level, const char* format, ...)
{
    // The analyzer does not follow va_start.
    // NOLINTBEGIN(clang-analyzer-valist.Uninitialized)
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(length < 0 ? 1 : static_cast<size_t>(length) + 1, '\0');
    va_start(arguments, format);
    (void)std::vsnprintf(&text[0], text.size(), format, arguments);
    va_end(arguments);
    // NOLINTEND(clang-analyzer-valist.Uninitialized)
    text.pop_back();
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.guard);
    store.records.push_back({module, level, text, store.directory});
}

unsigned int CorpDir_OpenLog(tag_CORPDIR_LOGINFO* info)
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.guard);
    store.directory = info->szLogDir;
    return 0;
}

void CorpDir_CloseLog()
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.guard);
    store.directory.clear();
}

namespace captured_log
{
std::vector<Record> Records()
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.guard);
    return store.records;
}

std::vector<std::string> Texts(unsigned int level)
{
    std::vector<std::string> texts;
    for (const Record& record : Records())
    {
        if (record.level == level)
        {
            texts.push_back(record.text);
        }
    }
    return texts;
}

size_t CountWith(const std::string& part)
{
    const std::vector<Record> records = Records();
    return static_cast<size_t>(std::count_if(
        records.begin(), records.end(),
        [&](const Record& record) { return record.text.find(part) != std::string::npos; }));
}

void Clear()
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.guard);
    store.records.clear();
}

}  // namespace captured_log
