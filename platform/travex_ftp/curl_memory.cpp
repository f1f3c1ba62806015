#include "curl_memory.h"

#include <curl/curl.h>
#include <malloc.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace travex_ftp
{
namespace
{
void wipeAndFree(void* block)
{
    if (block != nullptr)
    {
        explicit_bzero(block, malloc_usable_size(block));
        free(block);
    }
}

// The system's realloc may move a block and leave its old place as it was.
void* moveAndWipe(void* block, size_t size)
{
    if (block == nullptr)
    {
        return malloc(size);
    }
    void* const moved = malloc(size);
    if (moved != nullptr)
    {
        memcpy(moved, block, std::min(size, malloc_usable_size(block)));
        wipeAndFree(block);
    }
    return moved;
}

}  // namespace

bool startLibraries()
{
    // OpenSSL first: its exit handler then runs after ours, which ends the threads that use it.
    return OPENSSL_init_ssl(0, nullptr) == 1 &&
           curl_global_init_mem(CURL_GLOBAL_DEFAULT, malloc, wipeAndFree, moveAndWipe, strdup,
                                calloc) == CURLE_OK;
}

}  // namespace travex_ftp
