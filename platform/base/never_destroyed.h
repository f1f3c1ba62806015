// Storage for objects that outlive the exit handlers.
#ifndef CORPDIR_BASE_NEVER_DESTROYED_H
#define CORPDIR_BASE_NEVER_DESTROYED_H

#include <new>

namespace base
{
// A static object that is never destroyed: threads and static destructors use it after the exit
// handlers have run. It takes no memory from the heap.
template <typename T>
class NeverDestroyed
{
public:
    NeverDestroyed()
    {
        new (m_storage) T;
    }
    T& Get()
    {
        return *std::launder(reinterpret_cast<T*>(m_storage));
    }

private:
    alignas(T) unsigned char m_storage[sizeof(T)];
};

}  // namespace base

#endif
