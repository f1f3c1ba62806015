#include "retrieve.h"

#include <algorithm>

#include "log.h"
#include "observer.h"
#include "worker.h"

namespace travex_ftp
{
namespace
{
using Count = unsigned long long;

// Bytes received between two checks of the control connection while data flows.
constexpr uint64_t kCheckInterval = 4 << 20;

bool IsFinal(const Reply& reply)
{
    return reply.code != 0 && !reply.Preliminary();
}

bool DecideByRefusal(const Evidence& evidence, Failure& failure)
{
    return evidence.last.code == kServiceNotAvailable
               ? FailByReply(failure, TRAVEX_FTP_ERR_CONNECT, "service not available",
                             evidence.last)
               : FailByReply(failure, TRAVEX_FTP_ERR_PARTIAL, "the server aborted the transfer",
                             evidence.last);
}

bool FailTimedOut(const Evidence& evidence, Failure& failure)
{
    char of[48] = "";
    if (evidence.announced != TRAVEX_FTP_SIZE_UNKNOWN)
    {
        (void)snprintf(of, sizeof of, " of %llu", static_cast<Count>(evidence.announced));
    }
    return Fail(failure, TRAVEX_FTP_ERR_TIMEOUT,
                "timed out while receiving: %llu bytes in %g s, %llu%s received",
                static_cast<Count>(evidence.periodBytes), Attempt::Seconds(evidence.stall),
                static_cast<Count>(evidence.received), of);
}

// Compares the bytes with the announced size; without one, checks the end of the data channel.
bool DecideByBytes(const Evidence& evidence, Failure& failure)
{
    const bool known = evidence.announced != TRAVEX_FTP_SIZE_UNKNOWN;
    if (known && evidence.received > evidence.announced)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARTIAL,
                    "too many bytes: %llu received, %llu announced",
                    static_cast<Count>(evidence.received), static_cast<Count>(evidence.announced));
    }
    if (known && evidence.received == evidence.announced)
    {
        return true;
    }
    switch (evidence.data)
    {
        case DataEnd::kTimedOut:
            return FailTimedOut(evidence, failure);
        case DataEnd::kLost:
            return Fail(failure, TRAVEX_FTP_ERR_PARTIAL,
                        "data connection lost after %llu bytes: %s",
                        static_cast<Count>(evidence.received), evidence.dataWhy);
        case DataEnd::kOpen:
            return true;  // the control connection has failed
        case DataEnd::kTruncated:
        case DataEnd::kClosedCleanly:
            break;
    }
    if (known)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARTIAL, "incomplete: %llu of %llu bytes received",
                    static_cast<Count>(evidence.received), static_cast<Count>(evidence.announced));
    }
    return evidence.data == DataEnd::kClosedCleanly ||
           Fail(failure, TRAVEX_FTP_ERR_PARTIAL,
                "the data channel closed without close_notify: the file may be truncated");
}

}  // namespace

bool Decide(const Evidence& evidence, Failure& failure)
{
    SetStep(failure, TRAVEX_FTP_STEP_RECEIVE);
    if (evidence.last.Negative())
    {
        return DecideByRefusal(evidence, failure);
    }
    if (!DecideByBytes(evidence, failure))
    {
        return false;
    }
    if (evidence.controlLost && evidence.data == DataEnd::kOpen)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARTIAL, "connection lost during the transfer: %s",
                    evidence.controlWhy);
    }
    SetStep(failure, TRAVEX_FTP_STEP_CONFIRM);
    if (evidence.controlLost)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARTIAL, "connection lost before the 226: %s",
                    evidence.controlWhy);
    }
    if (!IsFinal(evidence.last))
    {
        return Fail(failure, TRAVEX_FTP_ERR_TIMEOUT, "no 226 within %g s of the last byte",
                    Attempt::Seconds(evidence.confirm));
    }
    return evidence.last.PositiveCompletion() ||
           FailByReply(failure, TRAVEX_FTP_ERR_REPLY, "unexpected reply to RETR", evidence.last);
}

Retrieval::Retrieval(ControlConnection& control, Attempt& attempt, const TaskPtr& task,
                     DownloadFile& file, bool& usePasv, Notifier& notifier)
    : m_control(control),
      m_attempt(attempt),
      m_task(task),
      m_file(file),
      m_usePasv(usePasv),
      m_notifier(notifier),
      m_settings(control.TheSettings()),
      m_limits(attempt.limits),
      m_reported(Clock::now())
{
    m_evidence.stall = m_limits.stall;
    m_evidence.confirm = m_limits.confirm;
}

bool Retrieval::Run()
{
    return OpenData() && RequestSize() && CheckData() && SendRetr() && SecureData() && Receive() &&
           AwaitConfirmation() && Conclude();
}

bool Retrieval::MayUsePasv() const
{
    return m_settings.server.Ipv4() && !m_usePasv;
}

// Requests a port and starts to connect to it; the next command does not wait for the connection.
bool Retrieval::OpenData()
{
    unsigned int port = 0;
    if (!m_usePasv && !RequestPort("EPSV", "EPSV refused", "unexpected reply to EPSV", port))
    {
        return false;
    }
    m_byEpsv = port != 0;
    return m_byEpsv ? ConnectTo(port) : OpenByPasv();
}

bool Retrieval::OpenByPasv()
{
    m_usePasv = true;
    m_byEpsv = false;
    unsigned int port = 0;
    return RequestPort("PASV", "PASV refused", "unexpected reply to PASV", port) && ConnectTo(port);
}

// EPSV (RFC 2428) or PASV. With IPv4 an EPSV without a usable port is not a failure: the port is 0,
// and PASV follows. If the control connection is lost on EPSV, as behind some firewalls, PASV is
// tried on a new one.
bool Retrieval::RequestPort(const char* verb, const char* refused, const char* unexpected,
                            unsigned int& port)
{
    m_attempt.Enter(TRAVEX_FTP_STEP_PASSIVE);
    Reply reply;
    if (!m_control.Command(m_attempt, verb, "", reply))
    {
        m_wantsPasv = MayUsePasv() && m_attempt.failure.ulRet == TRAVEX_FTP_ERR_TRANSFER;
        return false;
    }
    port = reply.PositiveCompletion() ? PortOfReply(reply) : 0;
    if (port != 0 || MayUsePasv())
    {
        return true;
    }
    m_usePasv = false;  // PASV has failed too
    return FailByReply(m_attempt.failure, TRAVEX_FTP_ERR_REPLY,
                       reply.Negative() ? refused : unexpected, reply);
}

// Connects to the address of the control connection; the one in a 227 is ignored.
bool Retrieval::ConnectTo(unsigned int port)
{
    m_attempt.Enter(TRAVEX_FTP_STEP_DATA_CONNECT);
    m_port = port;
    m_data.Close();
    m_connectUntil = Clock::now() + m_limits.connect;
    const Io io = m_data.Connect(m_settings.server, port, m_settings.local);
    return io == Io::kDone || FailData(io);
}

// The data connection has failed. PASV may work: some firewalls open only ports that
// they see in a 227.
bool Retrieval::FailData(Io io)
{
    SetStep(m_attempt.failure, TRAVEX_FTP_STEP_DATA_CONNECT);
    if (m_attempt.EndedBy(io))
    {
        return false;
    }
    m_wantsPasv = m_byEpsv && MayUsePasv();
    m_usePasv = m_usePasv && m_byEpsv;  // PASV has failed too
    return io == Io::kTimedOut ? Fail(m_attempt.failure, TRAVEX_FTP_ERR_TIMEOUT,
                                      "connection to data port %u timed out after %g s", m_port,
                                      Attempt::Seconds(m_limits.connect))
                               : Fail(m_attempt.failure, TRAVEX_FTP_ERR_CONNECT,
                                      "cannot connect to data port %u: %s", m_port, m_data.Why());
}

// SIZE is left out when 213, 150 and bytes agreed earlier on this connection.
bool Retrieval::RequestSize()
{
    if (m_control.sizesAgree)
    {
        return true;
    }
    m_attempt.Enter(TRAVEX_FTP_STEP_SIZE);
    Reply reply;
    if (!m_control.Command(m_attempt, "SIZE", m_task->serverFile.c_str(), reply))
    {
        return false;
    }
    constexpr unsigned int kFileStatus = 213;
    m_sizeIn213 = reply.code == kFileStatus ? SizeIn213(reply.text) : TRAVEX_FTP_SIZE_UNKNOWN;
    m_evidence.announced = m_sizeIn213;
    return true;
}

// If the data channel has failed already, PASV is tried now, before RETR.
bool Retrieval::CheckData()
{
    const Io io = m_data.Connected();
    if (io == Io::kDone || io == Io::kAgain)
    {
        return true;
    }
    if (!m_byEpsv || !MayUsePasv())
    {
        return FailData(io);
    }
    return OpenByPasv();
}

bool Retrieval::SendRetr()
{
    m_attempt.Enter(TRAVEX_FTP_STEP_RETRIEVE);
    Reply reply;
    if (!m_control.Send(m_attempt, "RETR", m_task->serverFile.c_str()) || !AwaitPreliminary(reply))
    {
        return false;
    }
    if (reply.Preliminary())
    {
        return Opened(reply);
    }
    return reply.Negative()
               ? FailByReply(m_attempt.failure, TRAVEX_FTP_ERR_FILE, "RETR refused", reply)
               : FailByReply(m_attempt.failure, TRAVEX_FTP_ERR_REPLY, "unexpected reply to RETR",
                             reply);
}

// Waits for the reply to RETR while the data connection may still be in progress. When that fails,
// the reply, which may say why, is awaited for a limited time only.
bool Retrieval::AwaitPreliminary(Reply& reply)
{
    Clock::time_point replyUntil = Clock::time_point::max();
    Io data = Io::kAgain;
    for (;;)
    {
        Io io = m_control.PollReply(m_attempt, reply);
        if (io == Io::kDone)
        {
            return m_control.Accept(m_attempt, reply);
        }
        if (io == Io::kAgain && data == Io::kAgain)
        {
            data = m_data.Connected();
            const bool failed = data != Io::kAgain && data != Io::kDone;
            replyUntil = failed ? Clock::now() + kGracePeriod : replyUntil;
        }
        const Clock::time_point until = std::min(replyUntil, m_control.ReplyDue());
        io = io == Io::kAgain ? AwaitControl(data == Io::kAgain, until) : io;
        if (io == Io::kTimedOut && data != Io::kDone)
        {
            return FailData(data == Io::kAgain ? io : data);
        }
        if (io != Io::kDone && io != Io::kOtherReady)
        {
            return m_control.FailWait(m_attempt, io);
        }
    }
}

// Waits for the control connection, or for the data connection to be made.
Io Retrieval::AwaitControl(bool connecting, Clock::time_point until)
{
    Deadline deadline = m_attempt.Until(connecting ? std::min(until, m_connectUntil) : until);
    deadline.other = connecting ? m_data.Socket() : -1;
    deadline.otherEvents = POLLOUT;
    return m_control.TheChannel().AwaitReadable(deadline);
}

// The server has started to send. The size in a 213 takes precedence over that in the 150, which is
// free text.
bool Retrieval::Opened(const Reply& reply)
{
    m_attempt.timings.ullOpened = m_attempt.Elapsed();
    m_control.TheChannel().Acknowledge();
    m_sizeIn150 = SizeIn150(reply.text);
    m_evidence.announced = m_sizeIn213 != TRAVEX_FTP_SIZE_UNKNOWN ? m_sizeIn213 : m_sizeIn150;
    SetStep(m_attempt.failure, TRAVEX_FTP_STEP_RECEIVE);
    if (m_evidence.announced != TRAVEX_FTP_SIZE_UNKNOWN &&
        m_evidence.announced > m_limits.fileBytes)
    {
        return FailTooLarge();
    }
    Deadline deadline = m_attempt.Until(m_connectUntil);
    // A reply that came in one segment with the 150 has been read already and wakes no poll.
    while (CheckControl())
    {
        deadline.other = ControlSocket();
        const Io io = m_data.AwaitConnected(deadline);
        if (io != Io::kOtherReady)
        {
            return io == Io::kDone || FailData(io);
        }
    }
    return false;
}

bool Retrieval::FailTooLarge()
{
    return Fail(m_attempt.failure, TRAVEX_FTP_ERR_TOO_LARGE, "the file is larger than %llu bytes",
                static_cast<Count>(m_limits.fileBytes));
}

// The handshake starts after the 150: some servers accept it only then. The control connection is
// watched, since a server may report there why it refuses the handshake.
bool Retrieval::SecureData()
{
    if (!m_settings.tls.encrypted)
    {
        return true;
    }
    m_attempt.Enter(TRAVEX_FTP_STEP_DATA_TLS);
    OpensslPtr<SSL> ssl = m_control.MakeDataTls();
    if (ssl == nullptr)
    {
        return FailSystem(m_attempt.failure, "TLS channel");
    }
    Deadline deadline = m_attempt.Within(m_limits.handshake);
    Io io = m_data.Handshake(std::move(ssl));
    do
    {
        deadline.other = ControlSocket();
        io = io == Io::kDone || io == Io::kOtherReady ? m_data.ContinueHandshake(deadline) : io;
    } while (io == Io::kOtherReady && CheckControl());
    if (io == Io::kDone)
    {
        m_control.Tls().Established(m_data.Tls(), true, m_attempt.timings);
        return true;
    }
    return io != Io::kOtherReady && FailSecureData(io);
}

bool Retrieval::FailSecureData(Io io)
{
    if (m_attempt.EndedBy(io))
    {
        return false;
    }
    if (io == Io::kTimedOut)
    {
        return Fail(m_attempt.failure, TRAVEX_FTP_ERR_TIMEOUT,
                    "data channel: TLS handshake timed out after %g s",
                    Attempt::Seconds(m_limits.handshake));
    }
    // If we rejected the certificate, the reply only reports our alert: it is not the cause.
    if (!m_control.Tls().Rejected() && AwaitFinal(kGracePeriod) == Io::kDone &&
        m_evidence.last.Negative())
    {
        return Decide(m_evidence, m_attempt.failure);
    }
    m_control.Tls().Explain(m_data.TlsError(), m_data.Why(), true, m_attempt.failure);
    return false;
}

// Checks the control connection during the transfer. False: the transfer has failed.
bool Retrieval::CheckControl()
{
    Io io = Io::kDone;
    while (!IsFinal(m_evidence.last) &&
           (io = m_control.PollReply(m_attempt, m_evidence.last)) == Io::kDone)
    {
    }
    RecordControlLoss(io);
    if (m_evidence.controlLost || m_evidence.last.Negative())
    {
        return Decide(m_evidence, m_attempt.failure);  // always a failure
    }
    return !Failed(m_attempt.failure);
}

// Records that the control connection is lost, if this result of an operation on it says so.
void Retrieval::RecordControlLoss(Io io)
{
    if (io == Io::kEnded || io == Io::kFailed)
    {
        m_evidence.controlLost = true;
        m_evidence.controlWhy = m_control.TheChannel().Why();
    }
}

// The control socket to watch during the transfer; -1 after the final reply.
int Retrieval::ControlSocket() const
{
    return IsFinal(m_evidence.last) ? -1 : m_control.TheChannel().Socket();
}

// Receives until the data channel ends or the transfer fails.
bool Retrieval::Receive()
{
    m_attempt.Enter(TRAVEX_FTP_STEP_RECEIVE);
    m_periodEnd = Clock::now() + m_limits.stall;
    uint64_t nextCheck = kCheckInterval;
    while (m_evidence.data == DataEnd::kOpen)
    {
        Io io = ReadSome();
        if (io == Io::kAgain)
        {
            io = AwaitData();
        }
        else if (io == Io::kDone && m_evidence.received >= nextCheck)
        {
            nextCheck = m_evidence.received + kCheckInterval;
            io = PollControl();
        }
        const bool proceed =
            io == Io::kOtherReady ? CheckControl() : io == Io::kDone || EndData(io);
        if (!proceed)
        {
            return false;
        }
    }
    return true;
}

// Checks the control connection, the cancel descriptor and the time without waiting: while data
// keeps coming AwaitData is not called.
Io Retrieval::PollControl()
{
    Deadline deadline = m_attempt.Within(milliseconds(0));
    deadline.other = ControlSocket();
    const Io io = deadline.Wait(-1, 0);
    return io == Io::kTimedOut && !m_attempt.EndedBy(io) ? Io::kDone : io;
}

Io Retrieval::ReadSome()
{
    size_t size = 0;
    size_t length = 0;
    char* const room = m_file.FreeSpace(size, m_attempt.failure);
    if (room == nullptr)
    {
        return Io::kFailed;
    }
    const Io io = m_data.Read(room, size, length);
    m_evidence.received += length;
    if (m_evidence.received > m_limits.fileBytes)
    {
        (void)FailTooLarge();
        return Io::kFailed;
    }
    m_unreported = m_unreported || length != 0;
    if (length != 0 && !m_file.Arrived(length, m_attempt.failure))
    {
        return Io::kFailed;
    }
    Worker::ParkAtExit();  // the write may have lasted until OpenSSL was torn down
    Report();
    return io;
}

// Waits for data and watches the control connection. The period is extended only when enough bytes
// arrived in it: single bytes do not keep a transfer alive. After a final reply and all
// announced bytes the end of the data channel is awaited for a short time only.
Io Retrieval::AwaitData()
{
    const bool complete = IsFinal(m_evidence.last) && m_evidence.received == m_evidence.announced;
    const Clock::time_point until =
        complete ? std::min(m_periodEnd, Clock::now() + kGracePeriod) : m_periodEnd;
    Deadline deadline = m_attempt.Until(until);
    deadline.other = ControlSocket();
    const Io io = AwaitReadable(m_data, deadline);
    m_evidence.periodBytes = m_evidence.received - m_bytesAtPeriodStart;
    const bool keepsPace = !complete && m_evidence.periodBytes >= m_limits.stallBytes;
    if (io == Io::kTimedOut && keepsPace && !m_attempt.EndedBy(io))
    {
        m_periodEnd = Clock::now() + m_limits.stall;
        m_bytesAtPeriodStart = m_evidence.received;
        return Io::kDone;
    }
    return io;
}

// The data channel has ended. False: the attempt has failed or was cancelled.
bool Retrieval::EndData(Io io)
{
    if (Failed(m_attempt.failure) || m_attempt.EndedBy(io))
    {
        return false;
    }
    const bool ordered = !m_settings.tls.encrypted || m_data.CloseNotified();
    m_evidence.data = io == Io::kTimedOut ? DataEnd::kTimedOut
                      : io == Io::kFailed ? DataEnd::kLost
                      : ordered           ? DataEnd::kClosedCleanly
                                          : DataEnd::kTruncated;
    m_evidence.dataWhy = m_data.Why();
    m_data.Close();
    return true;
}

// Waits for the final reply. If the bytes show already that the file is incomplete, only for a
// short time: the reply may give the reason.
bool Retrieval::AwaitConfirmation()
{
    m_attempt.Enter(TRAVEX_FTP_STEP_CONFIRM);
    const bool known = m_evidence.announced != TRAVEX_FTP_SIZE_UNKNOWN;
    const bool complete = known && m_evidence.received == m_evidence.announced;
    const bool mayExplain =
        m_evidence.data == DataEnd::kTimedOut || m_evidence.data == DataEnd::kLost || known;
    const Io io = AwaitFinal(mayExplain && !complete ? kGracePeriod : m_limits.confirm);
    return !m_attempt.cancelled && !Failed(m_attempt.failure) && io != Io::kCancelled;
}

// Waits for the final reply, unless it has arrived already.
Io Retrieval::AwaitFinal(milliseconds limit)
{
    const Deadline deadline = m_attempt.Within(limit);
    while (!IsFinal(m_evidence.last))
    {
        Io io = m_control.PollReply(m_attempt, m_evidence.last);
        io = io == Io::kAgain ? AwaitReadable(m_control.TheChannel(), deadline) : io;
        RecordControlLoss(io);
        if (io != Io::kDone)
        {
            (void)m_attempt.EndedBy(io);
            return io;
        }
    }
    return Io::kDone;
}

bool Retrieval::Conclude()
{
    if (!Decide(m_evidence, m_attempt.failure))
    {
        return false;
    }
    const bool asked = m_sizeIn213 != TRAVEX_FTP_SIZE_UNKNOWN;
    m_control.sizesAgree = m_sizeIn150 == m_evidence.received &&
                           (m_control.sizesAgree || (asked && m_sizeIn213 == m_sizeIn150));
    return true;
}

// Waits as the channel does, and reports bytes that no progress has reported when the interval is
// over: otherwise a server that then sends nothing would leave the observer with an old number.
Io Retrieval::AwaitReadable(Channel& channel, const Deadline& deadline)
{
    Deadline due = deadline;
    due.at = m_unreported ? std::min(deadline.at, m_reported + m_limits.observe) : deadline.at;
    const Io io = channel.AwaitReadable(due);
    if (io != Io::kTimedOut || due.at == deadline.at)
    {
        return io;
    }
    Report();
    return channel.AwaitReadable(deadline);
}

// Checks the clock first: Observed() takes a lock.
void Retrieval::Report()
{
    const Clock::time_point now = Clock::now();
    if (now - m_reported < m_limits.observe)
    {
        return;
    }
    m_reported = now;
    m_unreported = false;
    if (Observed())
    {
        m_notifier.Progress(m_task, m_evidence.received, m_evidence.announced);
    }
}

}  // namespace travex_ftp
