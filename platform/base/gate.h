// Guards something that is shut down when the process ends.
#ifndef CORPDIR_BASE_GATE_H
#define CORPDIR_BASE_GATE_H

#include <atomic>
#include <chrono>
#include <thread>

#include "base/mutex.h"

namespace base
{
// Thread-safe without a lock, so that the child of a fork can go on with it.
class Gate
{
public:
    // False: the gate is closed. Otherwise Leave() follows.
    //
    // Enter() announces itself first and looks second, Close() does the reverse: one of the two
    // sees the other. The first look keeps refused callers from being waited for.
    bool Enter()
    {
        if (m_closed)
        {
            return false;
        }
        ++m_inside;
        if (m_closed)
        {
            --m_inside;
            return false;
        }
        return true;
    }

    void Leave()
    {
        --m_inside;
    }

    // Admits no caller from now on, and waits until at most `own` are inside, or for the deadline.
    void Close(unsigned int own, Clock::time_point deadline)
    {
        m_closed = true;
        while (m_inside > own && Clock::now() < deadline)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    // In the child of a fork: the threads inside are the parent's.
    void ForgetInside()
    {
        m_inside = 0;
    }

private:
    std::atomic<bool> m_closed{false};
    std::atomic<unsigned int> m_inside{0};
};

}  // namespace base

#endif
