// The records of the C interface, checked and converted to the service's records.
#ifndef CORPDIR_C_REQUEST_H
#define CORPDIR_C_REQUEST_H

#include "corpdir_c.h"
#include "ftpcorpdir.h"

namespace corpdir_c
{

// Copies settings into the service's record. CORPDIR_OK, or the code of the bad member.
corpdir_code ReadLogSettings(const corpdir_log_settings& settings, tag_CORPDIR_LOGINFO& info);

// The service's record of a request, filled for one call. It holds the password and is wiped when
// it goes.
class Request
{
public:
    Request() = default;
    ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    // CORPDIR_OK, or the code of the bad member. Allocates nothing: a start that runs out of memory
    // has then stopped the earlier request. Server list and local address are not copied.
    corpdir_code Read(const corpdir_request& request) noexcept;

    tag_CORPDIR_DOWNLOADINFO& Info()
    {
        return m_info;
    }

private:
    corpdir_code ReadServer(const corpdir_request& request);
    corpdir_code ReadFiles(const corpdir_request& request);
    corpdir_code ReadDirectories(const corpdir_request& request);
    corpdir_code ReadOptions(const corpdir_request& request);

    tag_CORPDIR_DOWNLOADINFO m_info = {};
};

}  // namespace corpdir_c

#endif
