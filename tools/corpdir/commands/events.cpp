#include "commands/events.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

namespace corpdir_tool
{

Failure FailureOf(const client::TransferEvent& event)
{
    return {event.code, event.step,   event.reply,          event.detail,
            event.file, event.reason, event.timings.acNames};
}

bool IsArgumentRefusal(unsigned int code)
{
    return code == TRAVEX_FTP_ERR_PARAM || code == TRAVEX_FTP_ERR_CIPHER ||
           code == TRAVEX_FTP_ERR_TRUST;
}

std::string ArgumentProblem(const client::TransferEvent& event)
{
    const char* const option = event.code == TRAVEX_FTP_ERR_CIPHER  ? "--ciphers: "
                               : event.code == TRAVEX_FTP_ERR_TRUST ? "--ca: "
                                                                    : "";
    return option + event.reason;
}

void EventQueue::Push(EventKind kind, int number) noexcept
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
        Event event{client::EventOf(seen), 0};
        event.server = client::AddressOfEndpoint(event.server);
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
    event.kind = EventKind::kDeadline;
    if (m_outOfMemory)
    {
        event.kind = EventKind::kOutOfMemory;
    }
    else if (!m_events.empty())
    {
        event = std::move(m_events.front());
        m_events.pop_front();
    }
    return event;
}

std::vector<Event> EventQueue::TakeServiceEvents()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto isOther = [](const Event& event) { return event.kind > EventKind::kDelivered; };
    const auto first = std::stable_partition(m_events.begin(), m_events.end(), isOther);
    std::vector<Event> taken(std::make_move_iterator(first),
                             std::make_move_iterator(m_events.end()));
    m_events.erase(first, m_events.end());
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
