// The fixture of the service's tests: the one service object as it is after construction, empty
// fakes, and helpers.
#ifndef TESTS_SERVICE_SERVICE_TEST_H
#define TESTS_SERVICE_SERVICE_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "fakes.h"
#include "service_access.h"

using Lines = std::vector<std::string>;

// A complete request: FTPS, user "alice" with password "secret".
tag_CORPDIR_DOWNLOADINFO ARequest(const char* pszServers = "192.0.2.1");

// Fills a field of the request as strcpy does, or without a terminator when the text has 256 bytes.
void SetField(char (&acField)[256], const std::string& strText);

// The client's callback: noted in the trace as "client(1, 0, null, null)", and a call of the
// function "client" for fakes::OnCall.
void ClientCallback(unsigned int ulKind, unsigned int ulResult, const char* pszText,
                    void* pReserved);

// A notification of the FTP library.
constexpr unsigned int SUCCESS = 0;
constexpr unsigned int FAILED = 3;
constexpr unsigned int OVER = 12;

struct Notification
{
    Notification(unsigned int ulType, unsigned int ulTaskID, const std::string& strFile);
    Notification& WithError(unsigned int ulCode);
    void Deliver();  // on this thread, as the library's notification thread would

    tagTRAVEX_FTP_S_NOTIFY_DATA stRecord = {};
    tagTRAVEX_FTP_S_ERR_INFO stError = {};
};

// The lines that begin with one of these.
Lines Only(const Lines& vecLines, const Lines& vecBeginnings);

// The trace without wipes of locals and without measured lengths, which belong to no step.
Lines Procedure(const Lines& vecTrace);

Lines Joined(std::initializer_list<Lines> parts);

// The request's texts that a stop and the destructor clear; that of the trusted certificates is
// kept.
Lines RequestTexts(const inside::Members& members);

// Waits until another thread has made the condition true.
template <class Condition>
void Await(Condition holds)
{
    while (!holds())
    {
        std::this_thread::yield();
    }
}

// Slots of the Itanium C++ ABI: the object begins with a pointer to its table of functions.
template <class Function>
Function Slot(void* pObject, size_t ulSlot)
{
    void** const pTable = *static_cast<void***>(pObject);
    Function pfnSlot = nullptr;
    std::memcpy(&pfnSlot, &pTable[ulSlot], sizeof(pfnSlot));
    return pfnSlot;
}

class ServiceTest : public testing::Test
{
protected:
    ServiceTest();
    ~ServiceTest() override;

    // A misuse or a rule whose call did not come fails the test.
    void TearDown() override;

    // Stops the service and puts a new object in the place of the old one.
    void Renew();

    // Starts the service; what the start did is forgotten.
    void Start();

    // Copies a request into the members; what that did is forgotten.
    void TakeRequest(const std::string& strServers = "192.0.2.1");

    // Makes a request; what it did is forgotten. The first version download has task 1.
    void StartWithRequest(const std::string& strServers = "192.0.2.1");

    // Runs the worker on this thread until its queue is empty, then takes its run flag away.
    unsigned int RunWorkerUntilIdle();

    // The queue's tasks in order; they stay in it.
    std::vector<unsigned int> Tasks();
    void AddTask(unsigned int ulTask);

    // Everything that happened since the last call, or the log's part of it.
    Lines Trace();
    Lines Logged();

    // The trace without its first lines.
    Lines TraceFrom(size_t ulFirst);

    CFTPCorpDirImpl& service;
    IFtpCorpDir& client;  // the same object as a client sees it
    inside::Members members;
    tag_CORPDIR_LOGINFO stLogInfo = {};
};

#endif
