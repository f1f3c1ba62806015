// One file over a control connection: from the data connection to the server's last word.
#ifndef TRAVEX_FTP_RETRIEVE_H
#define TRAVEX_FTP_RETRIEVE_H

#include "attempt.h"
#include "control_connection.h"
#include "download_file.h"
#include "notifier.h"
#include "replies.h"
#include "task.h"

namespace travex_ftp
{
// How a data channel was left.
enum class DataEnd
{
    kOpen,     // it is still there
    kCutOff,   // the server has closed the connection, where TLS has an end of its own
    kInOrder,  // close_notify, or the end of a connection in clear
    kLost,     // it broke
    kStalled,  // too little came
};

// What was seen of a file between the 150 and the end. The outcome follows from it alone.
struct Seen
{
    uint64_t announced = TRAVEX_FTP_SIZE_UNKNOWN;
    uint64_t received = 0;
    DataEnd data = DataEnd::kOpen;
    const char* dataWhy = "";  // of kLost
    Reply last;                // the server's final word; code 0: there was none
    bool controlLost = false;
    const char* controlWhy = "";
    milliseconds stall{0};  // the limits that may have run out
    milliseconds confirm{0};
    uint64_t stalledBytes = 0;  // that came within `stall`
};

// True: the file is proven whole. Proof is a positive reply and, when a size was announced, just as
// many bytes; otherwise the data channel's end by its rules. Sets step, code and reason.
bool Decide(const Seen& seen, Failure& failure);

// What a handle knows of a server beyond one connection.
struct ServerHabits
{
    bool noEpsv = false;  // PASV is to be used (IPv4): EPSV was refused, or led nowhere
};

// Not thread-safe: the transfer thread's.
class Retrieval
{
public:
    Retrieval(ControlConnection& control, Attempt& attempt, const TaskPtr& task, DownloadFile& file,
              ServerHabits& habits, Notifier& notifier);
    Retrieval(const Retrieval&) = delete;
    Retrieval& operator=(const Retrieval&) = delete;

    // Receives the file. False: it has failed, or was cancelled, as the attempt says.
    bool Run();

    uint64_t Received() const
    {
        return m_seen.received;
    }
    uint64_t Announced() const
    {
        return m_seen.announced;
    }

    // It failed since EPSV led nowhere, and PASV has not been tried.
    bool WantsPasv() const
    {
        return m_wantsPasv;
    }

private:
    bool OpenData();
    bool OpenByPasv();
    bool AskPort(const char* verb, const char* refused, const char* unexpected, unsigned int& port);
    bool ConnectTo(unsigned int port);
    bool FailData(Io io);
    bool AskSize();
    bool CheckData();
    bool Request();
    bool AwaitOpening(Reply& reply);
    Io AwaitControl(bool connecting, Clock::time_point until);
    bool Opened(const Reply& reply);
    bool FailTooLarge();
    bool SecureData();
    bool FailSecureData(Io io);
    bool Receive();
    Io ReadSome();
    Io LookAround();
    Io AwaitData();
    bool EndData(Io io);
    bool Watch();
    bool AwaitConfirmation();
    Io AwaitFinal(milliseconds limit);
    bool Conclude();
    void Report();
    bool MayUsePasv() const;

    ControlConnection& m_control;
    Attempt& m_attempt;
    const TaskPtr& m_task;
    DownloadFile& m_file;
    ServerHabits& m_habits;
    Notifier& m_notifier;
    const Settings& m_settings;
    const Limits& m_limits;

    Channel m_data;
    unsigned int m_port = 0;
    bool m_byEpsv = false;
    bool m_wantsPasv = false;
    Clock::time_point m_connectUntil;
    uint64_t m_sizeAnswered = TRAVEX_FTP_SIZE_UNKNOWN;
    uint64_t m_sizeOpened = TRAVEX_FTP_SIZE_UNKNOWN;
    Seen m_seen;
    Clock::time_point m_windowEnd;  // of the pace that data must keep
    uint64_t m_windowBytes = 0;     // received when it began
    Clock::time_point m_reported;
};

}  // namespace travex_ftp

#endif
