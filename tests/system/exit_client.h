// Shared by exit_client.cpp and its test.
#ifndef CORPDIR_TESTS_EXIT_CLIENT_H
#define CORPDIR_TESTS_EXIT_CLIENT_H

namespace exit_client
{

// Ways to end.
constexpr const char* kExit = "exit";
constexpr const char* kReturn = "return";              // from main
constexpr const char* kExitOnThread = "thread";        // on a thread of the client
constexpr const char* kExitInCallback = "callback";    // on the service's notification thread
constexpr const char* kExitBesideCallback = "beside";  // while a callback is in progress

// Exit statuses.
constexpr int kEnded = 40;
constexpr int kMisused = 41;
constexpr int kRefused = 42;  // the service did not start, or did not take the request

constexpr const char* kUser = "ftp";
constexpr const char* kPassword = "throw-away-17";

}  // namespace exit_client

#endif
