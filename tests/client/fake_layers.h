// The layers that the program calls directly, faked: they keep their arguments.
#ifndef CORPDIR_TESTS_FAKE_LAYERS_H
#define CORPDIR_TESTS_FAKE_LAYERS_H

#include <string>
#include <vector>

#include "travex_ftp.h"

namespace corpdir_tool
{

struct FakeLayers
{
    TRAVEX_FTP_OBSERVER_CB observer = nullptr;
    void* user = nullptr;
    std::vector<std::string> names;  // "192.0.2.1=dir.example", in the order of the calls
    unsigned int nameResult = 0;     // of every name
    tagTRAVEX_FTP_S_LIMITS limits = {};
    unsigned int limitsResult = 0;
    int expiries = 0;             // of all timers
    std::string trust;            // of the parameters that were set last
    unsigned int refuseWith = 0;  // the code for parameters

    // The FTP layer's report on a task.
    void Observe(unsigned int kind, unsigned int task, const std::string& server, const char* file,
                 unsigned int code, const char* reason, unsigned int reply = 0) const;
};

FakeLayers& Layers();

}  // namespace corpdir_tool

#endif
