// The records of the C interface, checked and converted to the client's settings.
#ifndef CORPDIR_C_REQUEST_H
#define CORPDIR_C_REQUEST_H

#include "corpdir_c.h"
#include "corpdir_loginfo.h"
#include "worker.h"

namespace corpdir_c
{

// Copies settings into the service's record. CORPDIR_OK, or the code of the bad member.
corpdir_code ReadLogSettings(const corpdir_log_settings& settings, tag_CORPDIR_LOGINFO& info);

// Reads a request. The password is sealed at once. CORPDIR_OK, or the code of the bad member; a
// reason when there is more to say than corpdir_error_text does. Throws std::bad_alloc, and
// std::runtime_error when the password cannot be sealed.
Answer ReadRequest(const corpdir_request& record, Request& request);

// True for a record of at least this header's size; a size that was not set is mostly a larger one.
bool HasRoom(std::size_t size, std::size_t needed);

}  // namespace corpdir_c

#endif
