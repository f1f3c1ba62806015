// libcurl's memory, wiped when it is freed.
#ifndef TRAVEX_FTP_CURL_MEMORY_H
#define TRAVEX_FTP_CURL_MEMORY_H

namespace travex_ftp
{
// Starts libcurl and OpenSSL for the process; once, for ever. libcurl keeps several copies of a
// password and frees them as they are; the allocator that it is given wipes every block. Blocks
// stay interchangeable with those of malloc. Where the program has started libcurl before us, with
// an allocator of its own choice, that choice stands. False when it fails.
bool startLibraries();

}  // namespace travex_ftp

#endif
