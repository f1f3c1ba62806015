// The transfer of one file: data connection, SIZE, RETR, bytes, final reply.
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
// How a data channel ended.
enum class DataEnd
{
    kOpen,           // it is still open
    kTruncated,      // TLS: closed without close_notify
    kClosedCleanly,  // close_notify, or the close of a connection in clear
    kLost,           // failed
    kTimedOut,       // fewer bytes than the limit
};

// The facts about a transfer after its 150. Its outcome depends on nothing else.
struct Evidence
{
    uint64_t announced = TRAVEX_FTP_SIZE_UNKNOWN;
    uint64_t received = 0;
    DataEnd data = DataEnd::kOpen;
    const char* dataWhy = "";  // the reason for kLost
    Reply last;                // the final reply; code 0: none
    bool controlLost = false;
    const char* controlWhy = "";
    milliseconds stall{0};  // the limits, for the reason
    milliseconds confirm{0};
    uint64_t periodBytes = 0;  // received in the last period of `stall`
};

// True: the file is proven complete, by a positive final reply and exactly the announced number of
// bytes, or without an announced size by a clean close of the data channel. Else sets step, code
// and reason.
bool Decide(const Evidence& evidence, Failure& failure);

// Not thread-safe: transfer thread only.
class Retrieval
{
public:
    // `usePasv`: remembered for each server. True: skip EPSV, which failed before (IPv4 only).
    Retrieval(ControlConnection& control, Attempt& attempt, const TaskPtr& task, DownloadFile& file,
              bool& usePasv, Notifier& notifier);
    Retrieval(const Retrieval&) = delete;
    Retrieval& operator=(const Retrieval&) = delete;

    // Receives the file. False: failed or cancelled, see the attempt.
    bool Run();

    uint64_t Received() const
    {
        return m_evidence.received;
    }
    uint64_t Announced() const
    {
        return m_evidence.announced;
    }

    // EPSV failed, and PASV is to be tried on a new connection.
    bool WantsPasv() const
    {
        return m_wantsPasv;
    }

private:
    bool OpenData();
    bool OpenByPasv();
    bool RequestPort(const char* verb, const char* refused, const char* unexpected,
                     unsigned int& port);
    bool ConnectTo(unsigned int port);
    bool FailData(Io io);
    bool RequestSize();
    bool CheckData();
    bool SendRetr();
    bool AwaitPreliminary(Reply& reply);
    Io AwaitControl(bool connecting, Clock::time_point until);
    bool Opened(const Reply& reply);
    bool FailTooLarge();
    bool SecureData();
    bool FailSecureData(Io io);
    bool Receive();
    Io ReadSome();
    Io PollControl();
    Io AwaitData();
    bool EndData(Io io);
    bool CheckControl();
    void RecordControlLoss(Io io);
    int ControlSocket() const;
    bool AwaitConfirmation();
    Io AwaitFinal(milliseconds limit);
    bool Conclude();
    Io AwaitReadable(Channel& channel, const Deadline& deadline);
    void Report();
    bool MayUsePasv() const;

    ControlConnection& m_control;
    Attempt& m_attempt;
    const TaskPtr& m_task;
    DownloadFile& m_file;
    bool& m_usePasv;
    Notifier& m_notifier;
    const Settings& m_settings;
    const Limits& m_limits;

    Channel m_data;
    unsigned int m_port = 0;
    bool m_byEpsv = false;
    bool m_wantsPasv = false;
    Clock::time_point m_connectUntil;
    uint64_t m_sizeIn213 = TRAVEX_FTP_SIZE_UNKNOWN;
    uint64_t m_sizeIn150 = TRAVEX_FTP_SIZE_UNKNOWN;
    Evidence m_evidence;
    Clock::time_point m_periodEnd;      // of the current period of Limits::stall
    uint64_t m_bytesAtPeriodStart = 0;  // bytes received when it began
    Clock::time_point m_reported;
    bool m_unreported = false;  // bytes have arrived since then
};

}  // namespace travex_ftp

#endif
