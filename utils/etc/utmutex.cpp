// utmutex.cpp: the mutex behind the virtual interface. The caller owns the object, the object owns its pooled mutex.
// Not signal-safe.
#include "corvex/ptmutex.h"
#include "corvex/vmutex.h"
#include "utils/utmem/utmem.h"

namespace {

// A pooled mutex as a member.
class a_ut_mutex {
public:
    a_ut_mutex() { ut_safe_pthread_mutex_init(&_mutex, nullptr); }
    ~a_ut_mutex() { ut_safe_pthread_mutex_destroy(&_mutex); }
    a_ut_mutex& operator=(a_ut_mutex&&) = delete;  // nor copies

    bool taken() const { return _mutex.p_mutex != nullptr; }
    void get() { pthread_mutex_lock(_mutex.p_mutex); }
    void give() { pthread_mutex_unlock(_mutex.p_mutex); }

    void* operator new(size_t size) noexcept { return ut_alloc(size); }
    void operator delete(void* block) noexcept { ut_free(block); }

private:
    a_ut_safe_pthread_mutex_t _mutex;
};

class a_ut_ivmutex final : public a_ut_vmutex {
public:
    void get() override { _mutex.get(); }
    void give() override { _mutex.give(); }
    void destroy() override { delete this; }
    virtual ~a_ut_ivmutex() = default;

    bool usable() const { return _mutex.taken(); }

    void* operator new(size_t size) noexcept { return ut_alloc(size); }
    void operator delete(void* block) noexcept { ut_free(block); }

private:
    a_ut_mutex _mutex;
};

}  // namespace

a_ut_vmutex* UT_Vmutex_Create(void)
{
    a_ut_ivmutex* mutex = new a_ut_ivmutex;
    if (mutex == nullptr || mutex->usable())
        return mutex;
    delete mutex;  // the pool had no memory
    return nullptr;
}
