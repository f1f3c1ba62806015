#include "commands/events.h"

#include <new>
#include <utility>

namespace corpdir_tool
{

Failure FailureOf(const client::TransferEvent& event)
{
    return {event.code, event.step,   event.reply,          event.detail,
            event.file, event.reason, event.timings.acNames};
}

std::string ArgumentProblem(const client::TransferEvent& event)
{
    const char* const option = event.code == TRAVEX_FTP_ERR_CIPHER  ? "--ciphers: "
                               : event.code == TRAVEX_FTP_ERR_TRUST ? "--ca: "
                                                                    : "";
    return option + event.reason;
}

void EventQueue::Push(Event::Kind kind, int number) noexcept
{
    Event event;
    event.kind = kind;
    event.number = number;
    Append(std::move(event));
}

void EventQueue::PushObservation(const tagTRAVEX_FTP_S_OBSERVATION& seen) noexcept
{
    try
    {
        Event event{Event::Kind::kTransfer, 0, client::EventOf(seen)};
        event.transfer.server = client::AddressOfEndpoint(event.transfer.server);
        Append(std::move(event));
    }
    catch (const std::bad_alloc&)
    {
        SetOutOfMemory();
    }
}

void EventQueue::SetWake(std::function<void()> wake)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_wake = std::move(wake);
    if (m_wake && (m_outOfMemory || !m_events.empty()))
    {
        m_wake();
    }
}

Event EventQueue::WaitUntil(Clock::time_point deadline)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_until(lock, deadline, [this] { return m_outOfMemory || !m_events.empty(); });
    // The event that was lost may be the one awaited, so this comes before all others.
    Event event;
    if (m_outOfMemory)
    {
        event.kind = Event::Kind::kOutOfMemory;
    }
    else if (!m_events.empty())
    {
        event = std::move(m_events.front());
        m_events.pop_front();
    }
    return event;
}

std::vector<client::TransferEvent> EventQueue::TakeObservations()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<client::TransferEvent> taken;
    std::deque<Event> others;
    for (Event& event : m_events)
    {
        if (event.kind == Event::Kind::kTransfer)
        {
            taken.push_back(std::move(event.transfer));
        }
        else
        {
            others.push_back(std::move(event));
        }
    }
    m_events = std::move(others);
    return taken;
}

void EventQueue::Append(Event event) noexcept
{
    try
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(std::move(event));
        if (m_wake)
        {
            m_wake();
        }
    }
    catch (const std::bad_alloc&)
    {
        SetOutOfMemory();
    }
    m_changed.notify_one();
}

void EventQueue::SetOutOfMemory() noexcept
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_outOfMemory = true;
        if (m_wake)
        {
            m_wake();
        }
    }
    m_changed.notify_one();
}

}  // namespace corpdir_tool
