// Events of the C interface, made from the client's.
#ifndef CORPDIR_C_EVENTS_H
#define CORPDIR_C_EVENTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "client.h"
#include "corpdir_c.h"

namespace corpdir_c
{

// Which events a request gets.
enum class Edition
{
    kFirst,  // of a program built with the header of version 1.0
    kCurrent,
};

// An event with its texts.
struct EventData
{
    corpdir_event_kind kind = CORPDIR_EVENT_LOST;
    corpdir_code code = CORPDIR_OK;
    std::string server;
    std::string file;
    std::string reason;
    std::string name;
    std::string version;
    std::string path;
    std::uint64_t bytes = 0;
    std::uint64_t total = CORPDIR_SIZE_UNKNOWN;
    std::int64_t time = 0;
    unsigned int step = 0;
    unsigned int reply = 0;
    unsigned int failures = 0;
    unsigned int seconds = 0;

    // Valid as long as this object is.
    corpdir_event Record() const;
};

// The code for one of the FTP layer.
corpdir_code CodeOf(unsigned int layerResult) noexcept;

// Zero or more events for one of the client, in their order. Throws std::bad_alloc.
std::vector<EventData> EventsOf(const client::Event& event, Edition edition);

}  // namespace corpdir_c

#endif
