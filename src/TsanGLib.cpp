// SPDX-License-Identifier: MIT
// Reports GLib's locks to ThreadSanitizer, which does not see into the library that they are in.
// Compiled only for that sanitizer: there, calls to these functions come here first.
#include <dlfcn.h>
#include <glib.h>

extern "C" void __tsan_acquire(void* address); // NOLINT(bugprone-reserved-identifier)
extern "C" void __tsan_release(void* address); // NOLINT(bugprone-reserved-identifier)

namespace {

template <typename Function>
Function* Real(Function* /*own*/, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" void g_mutex_lock(GMutex* mutex)
{
    static const auto real = Real(&g_mutex_lock, "g_mutex_lock");
    real(mutex);
    __tsan_acquire(mutex);
}

extern "C" void g_mutex_unlock(GMutex* mutex)
{
    static const auto real = Real(&g_mutex_unlock, "g_mutex_unlock");
    __tsan_release(mutex);
    real(mutex);
}

extern "C" void g_cond_wait(GCond* cond, GMutex* mutex)
{
    static const auto real = Real(&g_cond_wait, "g_cond_wait");
    __tsan_release(mutex);
    real(cond, mutex);
    __tsan_acquire(mutex);
}

extern "C" gboolean g_cond_wait_until(GCond* cond, GMutex* mutex, gint64 end)
{
    static const auto real = Real(&g_cond_wait_until, "g_cond_wait_until");
    __tsan_release(mutex);
    const gboolean woken = real(cond, mutex, end);
    __tsan_acquire(mutex);
    return woken;
}
