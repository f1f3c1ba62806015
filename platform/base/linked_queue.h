// A queue that needs no memory to append.
#ifndef CORPDIR_BASE_LINKED_QUEUE_H
#define CORPDIR_BASE_LINKED_QUEUE_H

#include <memory>
#include <utility>

namespace base
{
// First in, first out, linked through the elements: kNext is the member that owns the next one.
// Pointer is a std::unique_ptr or a std::shared_ptr. An element is in one queue by one link. Not
// thread-safe.
template <typename Pointer, Pointer std::pointer_traits<Pointer>::element_type::*kNext>
class LinkedQueue
{
public:
    using Element = typename std::pointer_traits<Pointer>::element_type;

    LinkedQueue() = default;
    LinkedQueue(LinkedQueue&& other) noexcept
        : m_first(std::move(other.m_first)), m_last(std::exchange(other.m_last, nullptr))
    {
    }
    // The other queue gets what this one held.
    LinkedQueue& operator=(LinkedQueue&& other) noexcept
    {
        m_first.swap(other.m_first);
        std::swap(m_last, other.m_last);
        return *this;
    }
    ~LinkedQueue()
    {
        Clear();
    }

    bool IsEmpty() const
    {
        return m_first == nullptr;
    }

    // The oldest element, null when the queue is empty; the others follow by kNext.
    Element* First() const
    {
        return m_first.get();
    }

    void Push(Pointer element)
    {
        Element* const pushed = element.get();
        (m_last == nullptr ? m_first : m_last->*kNext) = std::move(element);
        m_last = pushed;
    }

    // Null when the queue is empty.
    Pointer Pop()
    {
        Pointer element = std::move(m_first);
        if (element != nullptr)
        {
            m_first = std::move(element.get()->*kNext);
            m_last = m_first == nullptr ? nullptr : m_last;
        }
        return element;
    }

    // One by one: a chain of links would be destroyed recursively.
    void Clear()
    {
        while (Pop() != nullptr)
        {
        }
    }

private:
    Pointer m_first;
    Element* m_last = nullptr;
};

}  // namespace base

#endif
