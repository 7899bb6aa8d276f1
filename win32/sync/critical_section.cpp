// Critical sections: a recursive mutex in the section's own storage.
#include <pthread.h>
#include <windows.h>

#include <new>

static_assert(sizeof(pthread_mutex_t) <= sizeof(CRITICAL_SECTION::Storage));
static_assert(alignof(pthread_mutex_t) <= alignof(CRITICAL_SECTION));

static pthread_mutex_t* MutexOf(LPCRITICAL_SECTION section) {
    return std::launder(reinterpret_cast<pthread_mutex_t*>(section->Storage));
}

void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION section) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(new (section->Storage) pthread_mutex_t, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

BOOL WINAPI InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD) {
    InitializeCriticalSection(section);
    return TRUE;
}

void WINAPI EnterCriticalSection(LPCRITICAL_SECTION section) { pthread_mutex_lock(MutexOf(section)); }

void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION section) { pthread_mutex_unlock(MutexOf(section)); }

void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION section) { pthread_mutex_destroy(MutexOf(section)); }
