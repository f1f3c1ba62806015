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

// What is read between two looks at the control connection while data flows.
constexpr uint64_t kLook = 4 << 20;

bool IsFinal(const Reply& reply)
{
    return reply.code != 0 && !reply.Preliminary();
}

// The server's own word rules.
bool DecideByRefusal(const Seen& seen, Failure& failure)
{
    return seen.last.code == kServiceNotAvailable
               ? FailByReply(failure, TRAVEX_FTP_ERR_CONNECT, "service not available", seen.last)
               : FailByReply(failure, TRAVEX_FTP_ERR_PARTIAL, "the server aborted the transfer",
                             seen.last);
}

bool FailStalled(const Seen& seen, Failure& failure)
{
    char of[48] = "";
    if (seen.announced != TRAVEX_FTP_SIZE_UNKNOWN)
    {
        (void)snprintf(of, sizeof of, " of %llu", static_cast<Count>(seen.announced));
    }
    return Fail(failure, TRAVEX_FTP_ERR_TIMEOUT, "stalled: %llu bytes in %g s, %llu%s received",
                static_cast<Count>(seen.stalledBytes), Attempt::Seconds(seen.stall),
                static_cast<Count>(seen.received), of);
}

// The bytes, against the size if there is one and the end of the data channel if not.
bool DecideByBytes(const Seen& seen, Failure& failure)
{
    const bool known = seen.announced != TRAVEX_FTP_SIZE_UNKNOWN;
    if (known && seen.received > seen.announced)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARTIAL, "%llu bytes received, %llu announced",
                    static_cast<Count>(seen.received), static_cast<Count>(seen.announced));
    }
    if (known && seen.received == seen.announced)
    {
        return true;
    }
    switch (seen.data)
    {
        case DataEnd::kStalled:
            return FailStalled(seen, failure);
        case DataEnd::kLost:
            return Fail(failure, TRAVEX_FTP_ERR_PARTIAL,
                        "data connection lost after %llu bytes: %s",
                        static_cast<Count>(seen.received), seen.dataWhy);
        case DataEnd::kOpen:
            return true;  // the control connection has the reason
        case DataEnd::kCutOff:
        case DataEnd::kInOrder:
            break;
    }
    if (known)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARTIAL, "%llu bytes received of %llu announced",
                    static_cast<Count>(seen.received), static_cast<Count>(seen.announced));
    }
    return seen.data == DataEnd::kInOrder ||
           Fail(failure, TRAVEX_FTP_ERR_PARTIAL,
                "the data channel ended without close_notify: the file may be cut off");
}

}  // namespace

bool Decide(const Seen& seen, Failure& failure)
{
    SetStep(failure, TRAVEX_FTP_STEP_RECEIVE);
    if (seen.last.Refusal())
    {
        return DecideByRefusal(seen, failure);
    }
    if (!DecideByBytes(seen, failure))
    {
        return false;
    }
    if (seen.controlLost && seen.data == DataEnd::kOpen)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARTIAL, "connection lost during the transfer: %s",
                    seen.controlWhy);
    }
    SetStep(failure, TRAVEX_FTP_STEP_CONFIRM);
    if (seen.controlLost)
    {
        return Fail(failure, TRAVEX_FTP_ERR_PARTIAL, "connection lost before the 226: %s",
                    seen.controlWhy);
    }
    if (!IsFinal(seen.last))
    {
        return Fail(failure, TRAVEX_FTP_ERR_TIMEOUT, "no 226 within %g s of the last byte",
                    Attempt::Seconds(seen.confirm));
    }
    return seen.last.Positive() ||
           FailByReply(failure, TRAVEX_FTP_ERR_REPLY, "unexpected reply to RETR", seen.last);
}

Retrieval::Retrieval(ControlConnection& control, Attempt& attempt, const TaskPtr& task,
                     DownloadFile& file, ServerHabits& habits, Notifier& notifier)
    : m_control(control),
      m_attempt(attempt),
      m_task(task),
      m_file(file),
      m_habits(habits),
      m_notifier(notifier),
      m_settings(control.TheSettings()),
      m_limits(attempt.TheLimits()),
      m_reported(Clock::now())
{
    m_seen.stall = m_limits.stall;
    m_seen.confirm = m_limits.confirm;
}

bool Retrieval::Run()
{
    return OpenData() && AskSize() && CheckData() && Request() && SecureData() && Receive() &&
           AwaitConfirmation() && Conclude();
}

bool Retrieval::MayUsePasv() const
{
    return m_settings.server.Ipv4() && !m_habits.noEpsv;
}

// Asks for a port and begins to connect to it: the next command need not wait for the connection.
bool Retrieval::OpenData()
{
    unsigned int port = 0;
    if (!m_habits.noEpsv && !AskPort("EPSV", "EPSV refused", "unexpected reply to EPSV", port))
    {
        return false;
    }
    m_byEpsv = port != 0;
    return m_byEpsv ? ConnectTo(port) : OpenByPasv();
}

bool Retrieval::OpenByPasv()
{
    m_habits.noEpsv = true;
    m_byEpsv = false;
    unsigned int port = 0;
    return AskPort("PASV", "PASV refused", "unexpected reply to PASV", port) && ConnectTo(port);
}

// EPSV (RFC 2428) or PASV. With IPv4 there is PASV when the server does not understand EPSV, and
// the port is 0; a firewall on the way may even cut the connection.
bool Retrieval::AskPort(const char* verb, const char* refused, const char* unexpected,
                        unsigned int& port)
{
    m_attempt.Enter(TRAVEX_FTP_STEP_PASSIVE);
    Reply reply;
    if (!m_control.Command(m_attempt, verb, "", reply))
    {
        m_wantsPasv = MayUsePasv() && m_attempt.failure.ulRet == TRAVEX_FTP_ERR_TRANSFER;
        return false;
    }
    port = reply.Positive() ? PortOfReply(reply) : 0;
    if (port != 0 || MayUsePasv())
    {
        return true;
    }
    m_habits.noEpsv = false;  // PASV has not served either
    return FailByReply(m_attempt.failure, TRAVEX_FTP_ERR_REPLY,
                       reply.Refusal() ? refused : unexpected, reply);
}

// The address is the control connection's, whatever the server said.
bool Retrieval::ConnectTo(unsigned int port)
{
    m_port = port;
    m_data.Close();
    m_connectUntil = Clock::now() + m_limits.connect;
    const Io io = m_data.Connect(m_settings.server, port, m_settings.local);
    return io == Io::kDone || FailData(io);
}

// The data connection has not come about. A firewall may let through only what PASV has announced.
bool Retrieval::FailData(Io io)
{
    m_attempt.Enter(TRAVEX_FTP_STEP_DATA_CONNECT);
    if (m_attempt.Over(io))
    {
        return false;
    }
    m_wantsPasv = m_byEpsv && MayUsePasv();
    m_habits.noEpsv = m_habits.noEpsv && m_byEpsv;  // PASV has not served either
    return io == Io::kTimedOut ? Fail(m_attempt.failure, TRAVEX_FTP_ERR_TIMEOUT,
                                      "no data connection to port %u within %g s", m_port,
                                      Attempt::Seconds(m_limits.connect))
                               : Fail(m_attempt.failure, TRAVEX_FTP_ERR_CONNECT,
                                      "no data connection to port %u: %s", m_port, m_data.Why());
}

// A server that says the size in its 150 is not asked for it again.
bool Retrieval::AskSize()
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
    m_sizeAnswered = reply.code == kFileStatus ? SizeOfAnswer(reply.text) : TRAVEX_FTP_SIZE_UNKNOWN;
    m_seen.announced = m_sizeAnswered;
    return true;
}

// While the server waits for a command the data connection can still be made by PASV.
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

bool Retrieval::Request()
{
    m_attempt.Enter(TRAVEX_FTP_STEP_RETRIEVE);
    Reply reply;
    if (!m_control.Send(m_attempt, "RETR", m_task->serverFile.c_str()) || !AwaitOpening(reply))
    {
        return false;
    }
    if (reply.Preliminary())
    {
        return Opened(reply);
    }
    return reply.Refusal()
               ? FailByReply(m_attempt.failure, TRAVEX_FTP_ERR_FILE, "RETR refused", reply)
               : FailByReply(m_attempt.failure, TRAVEX_FTP_ERR_REPLY, "unexpected reply to RETR",
                             reply);
}

// The reply to RETR. The data connection may still be under way; when it fails, the reply may say
// why, but does not have to come.
bool Retrieval::AwaitOpening(Reply& reply)
{
    Clock::time_point lastWord = Clock::time_point::max();
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
            lastWord = failed ? Clock::now() + kLastWord : lastWord;
        }
        const Clock::time_point until = std::min(lastWord, m_control.ReplyDue());
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

// Waits for something on the control connection, or for the data connection.
Io Retrieval::AwaitControl(bool connecting, Clock::time_point until)
{
    Deadline deadline = m_attempt.Until(connecting ? std::min(until, m_connectUntil) : until);
    deadline.other = connecting ? m_data.Socket() : -1;
    deadline.otherEvents = POLLOUT;
    return m_control.TheChannel().AwaitReadable(deadline);
}

// The server begins to send. What SIZE said rules: the text of a 150 is for people.
bool Retrieval::Opened(const Reply& reply)
{
    m_attempt.timings.ullOpened = m_attempt.Elapsed();
    m_control.TheChannel().Acknowledge();
    m_sizeOpened = SizeOfOpening(reply.text);
    m_seen.announced = m_sizeAnswered != TRAVEX_FTP_SIZE_UNKNOWN ? m_sizeAnswered : m_sizeOpened;
    m_attempt.Enter(TRAVEX_FTP_STEP_RECEIVE);
    if (m_seen.announced != TRAVEX_FTP_SIZE_UNKNOWN && m_seen.announced > m_limits.fileBytes)
    {
        return FailTooLarge();
    }
    Deadline deadline = m_attempt.Until(m_connectUntil);
    // What came in one piece with the 150 makes the socket readable no more.
    while (Watch())
    {
        deadline.other = IsFinal(m_seen.last) ? -1 : m_control.TheChannel().Socket();
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

// The server may take up the handshake only now, and say on the control connection why it does not.
bool Retrieval::SecureData()
{
    if (!m_settings.tls.encrypted)
    {
        return true;
    }
    m_attempt.Enter(TRAVEX_FTP_STEP_DATA_TLS);
    TlsContext::Ssl ssl = m_control.MakeDataTls();
    if (ssl == nullptr)
    {
        return FailSystem(m_attempt.failure, "TLS channel");
    }
    Deadline deadline = m_attempt.Within(m_limits.handshake);
    Io io = m_data.Handshake(std::move(ssl));
    do
    {
        deadline.other = IsFinal(m_seen.last) ? -1 : m_control.TheChannel().Socket();
        io = io == Io::kDone || io == Io::kOtherReady ? m_data.GoOn(deadline) : io;
    } while (io == Io::kOtherReady && Watch());
    if (io == Io::kDone)
    {
        m_control.Tls().Established(m_data.Tls(), true, m_attempt.timings);
        return true;
    }
    return io != Io::kOtherReady && FailSecureData(io);
}

bool Retrieval::FailSecureData(Io io)
{
    if (m_attempt.Over(io))
    {
        return false;
    }
    if (io == Io::kTimedOut)
    {
        return Fail(m_attempt.failure, TRAVEX_FTP_ERR_TIMEOUT,
                    "data channel: TLS handshake timed out after %g s",
                    Attempt::Seconds(m_limits.handshake));
    }
    // What the server says then is its answer to our alert.
    if (!m_control.Tls().Rejected() && AwaitFinal(kLastWord) == Io::kDone && m_seen.last.Refusal())
    {
        return Decide(m_seen, m_attempt.failure);
    }
    m_control.Tls().Explain(m_data.TlsError(), m_data.Why(), true, m_attempt.failure);
    return false;
}

// Looks at the control connection while data is awaited. False: there is nothing more to wait for.
bool Retrieval::Watch()
{
    Io io = Io::kDone;
    while (!IsFinal(m_seen.last) && (io = m_control.PollReply(m_attempt, m_seen.last)) == Io::kDone)
    {
    }
    if (io == Io::kEnded || io == Io::kFailed)
    {
        m_seen.controlLost = true;
        m_seen.controlWhy = m_control.TheChannel().Why();
    }
    if (m_seen.controlLost || m_seen.last.Refusal())
    {
        return Decide(m_seen, m_attempt.failure);  // it is a failure, and of which kind
    }
    return !Failed(m_attempt.failure);
}

// Receives until the data channel ends, or the control connection leaves nothing to wait for.
bool Retrieval::Receive()
{
    m_attempt.Enter(TRAVEX_FTP_STEP_RECEIVE);
    m_windowEnd = Clock::now() + m_limits.stall;
    uint64_t look = kLook;
    while (m_seen.data == DataEnd::kOpen)
    {
        Io io = ReadSome();
        if (io == Io::kAgain)
        {
            io = AwaitData();
        }
        else if (io == Io::kDone && m_seen.received >= look)
        {
            look = m_seen.received + kLook;
            io = LookAround();
        }
        const bool goesOn = io == Io::kOtherReady ? Watch() : io == Io::kDone || EndData(io);
        if (!goesOn)
        {
            return false;
        }
    }
    return true;
}

// Sees, while data keeps coming, what AwaitData would see.
Io Retrieval::LookAround()
{
    Deadline deadline = m_attempt.Within(milliseconds(0));
    deadline.other = IsFinal(m_seen.last) ? -1 : m_control.TheChannel().Socket();
    const Io io = deadline.Wait(-1, 0);
    return io == Io::kTimedOut && !m_attempt.Over(io) ? Io::kDone : io;
}

Io Retrieval::ReadSome()
{
    size_t size = 0;
    size_t length = 0;
    char* const room = m_file.Room(size, m_attempt.failure);
    if (room == nullptr)
    {
        return Io::kFailed;
    }
    const Io io = m_data.Read(room, size, length);
    m_seen.received += length;
    if (m_seen.received > m_limits.fileBytes)
    {
        (void)FailTooLarge();
        return Io::kFailed;
    }
    if (length != 0 && !m_file.Arrived(length, m_attempt.failure))
    {
        return Io::kFailed;
    }
    Worker::ParkAtExit();  // a slow disk may have held it up until OpenSSL has gone
    Report();
    return io;
}

// Waits for data, and for what the control connection has to say. The window of the pace is not
// moved by a single byte: a server cannot keep a transfer alive by a byte now and then. A server
// that has confirmed a complete file is not waited for any more.
Io Retrieval::AwaitData()
{
    const bool complete = IsFinal(m_seen.last) && m_seen.received == m_seen.announced;
    const Clock::time_point until =
        complete ? std::min(m_windowEnd, Clock::now() + kLastWord) : m_windowEnd;
    Deadline deadline = m_attempt.Until(until);
    deadline.other = IsFinal(m_seen.last) ? -1 : m_control.TheChannel().Socket();
    const Io io = m_data.AwaitReadable(deadline);
    m_seen.stalledBytes = m_seen.received - m_windowBytes;
    const bool keepsPace = !complete && m_seen.stalledBytes >= m_limits.stallBytes;
    if (io == Io::kTimedOut && keepsPace && !m_attempt.Over(io))
    {
        m_windowEnd = Clock::now() + m_limits.stall;
        m_windowBytes = m_seen.received;
        return Io::kDone;
    }
    return io;
}

// The data channel gives no more. False: that is a failure of ours, or the end of the transfer.
bool Retrieval::EndData(Io io)
{
    if (Failed(m_attempt.failure) || m_attempt.Over(io))
    {
        return false;
    }
    const bool ordered = !m_settings.tls.encrypted || m_data.CloseNotified();
    m_seen.data = io == Io::kTimedOut ? DataEnd::kStalled
                  : io == Io::kFailed ? DataEnd::kLost
                  : ordered           ? DataEnd::kInOrder
                                      : DataEnd::kCutOff;
    m_seen.dataWhy = m_data.Why();
    m_data.Close();
    return true;
}

// The server's last word. Where the bytes show that the file is not whole it may give the reason.
bool Retrieval::AwaitConfirmation()
{
    const bool known = m_seen.announced != TRAVEX_FTP_SIZE_UNKNOWN;
    const bool whole = known && m_seen.received == m_seen.announced;
    const bool mayExplain =
        m_seen.data == DataEnd::kStalled || m_seen.data == DataEnd::kLost || known;
    const Io io = AwaitFinal(mayExplain && !whole ? kLastWord : m_limits.confirm);
    return !m_attempt.cancelled && !Failed(m_attempt.failure) && io != Io::kCancelled;
}

// Waits for the final reply; also when it has come already.
Io Retrieval::AwaitFinal(milliseconds limit)
{
    const Deadline deadline = m_attempt.Within(limit);
    while (!IsFinal(m_seen.last))
    {
        Io io = m_control.PollReply(m_attempt, m_seen.last);
        io = io == Io::kAgain ? m_control.TheChannel().AwaitReadable(deadline) : io;
        if (io == Io::kEnded || io == Io::kFailed)
        {
            m_seen.controlLost = true;
            m_seen.controlWhy = m_control.TheChannel().Why();
        }
        if (io != Io::kDone)
        {
            (void)m_attempt.Over(io);
            return io;
        }
    }
    return Io::kDone;
}

bool Retrieval::Conclude()
{
    if (!Decide(m_seen, m_attempt.failure))
    {
        return false;
    }
    const bool asked = m_sizeAnswered != TRAVEX_FTP_SIZE_UNKNOWN;
    m_control.sizesAgree = m_sizeOpened == m_seen.received &&
                           (m_control.sizesAgree || (asked && m_sizeAnswered == m_sizeOpened));
    return true;
}

// The clock is read before the observer's lock is taken.
void Retrieval::Report()
{
    const Clock::time_point now = Clock::now();
    if (now - m_reported >= m_limits.observe && Observed())
    {
        m_reported = now;
        m_notifier.Progress(m_task, m_seen.received, m_seen.announced);
    }
}

}  // namespace travex_ftp
