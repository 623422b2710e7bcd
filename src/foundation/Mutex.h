// Mutexes whose use the compiler checks. Clang's thread-safety analysis (-Wthread-safety) reports a
// guarded field that is touched without its mutex; for other compilers the annotations are empty.
// A leaf that uses nothing; the unit kit and the host kit share it.
#pragma once

#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define VEXA_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VEXA_THREAD_ANNOTATION(x)
#endif

#define VEXA_CAPABILITY(name) VEXA_THREAD_ANNOTATION(capability(name))
#define VEXA_SCOPED_CAPABILITY VEXA_THREAD_ANNOTATION(scoped_lockable)
#define VEXA_GUARDED_BY(mutex) VEXA_THREAD_ANNOTATION(guarded_by(mutex))
#define VEXA_REQUIRES(...) VEXA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VEXA_REQUIRES_SHARED(...) VEXA_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define VEXA_EXCLUDES(...) VEXA_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define VEXA_ACQUIRE(...) VEXA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VEXA_ACQUIRE_SHARED(...) VEXA_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define VEXA_TRY_ACQUIRE(...) VEXA_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define VEXA_RELEASE(...) VEXA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define VEXA_RELEASE_GENERIC(...) VEXA_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
// For the few functions that the analysis cannot follow; each says why.
#define VEXA_UNCHECKED VEXA_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace vexa {

// A plain mutex. Any thread.
class VEXA_CAPABILITY("mutex") Mutex {
  public:
    void lock() VEXA_ACQUIRE() { native.lock(); }
    void unlock() VEXA_RELEASE() { native.unlock(); }
    bool try_lock() VEXA_TRY_ACQUIRE(true) { return native.try_lock(); }

  private:
    std::mutex native;
};

// Holds a Mutex for a scope. It has lock and unlock of its own, so that a
// std::condition_variable_any can wait on it.
class VEXA_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex_) VEXA_ACQUIRE(mutex_) : mutex(mutex_) { mutex.lock(); }
    ~MutexLock() VEXA_RELEASE() { mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    // For a condition variable alone: it hands the mutex back as it got it.
    void lock() VEXA_UNCHECKED { mutex.lock(); }
    void unlock() VEXA_UNCHECKED { mutex.unlock(); }

  private:
    Mutex& mutex;
};

// A mutex that many may hold at the same time, or one alone. Any thread.
class VEXA_CAPABILITY("shared_mutex") SharedMutex {
  public:
    void lock() VEXA_ACQUIRE() { native.lock(); }
    void unlock() VEXA_RELEASE() { native.unlock(); }
    void lock_shared() VEXA_ACQUIRE_SHARED() { native.lock_shared(); }
    void unlock_shared() VEXA_RELEASE_GENERIC() { native.unlock_shared(); }

  private:
    std::shared_mutex native;
};

// Hold a SharedMutex for a scope: alone, and with others.
class VEXA_SCOPED_CAPABILITY ExclusiveLock {
  public:
    explicit ExclusiveLock(SharedMutex& mutex_) VEXA_ACQUIRE(mutex_) : mutex(mutex_) {
        mutex.lock();
    }
    ~ExclusiveLock() VEXA_RELEASE() { mutex.unlock(); }
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;

  private:
    SharedMutex& mutex;
};

class VEXA_SCOPED_CAPABILITY SharedLock {
  public:
    explicit SharedLock(SharedMutex& mutex_) VEXA_ACQUIRE_SHARED(mutex_) : mutex(mutex_) {
        mutex.lock_shared();
    }
    ~SharedLock() VEXA_RELEASE_GENERIC() { mutex.unlock_shared(); }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;

  private:
    SharedMutex& mutex;
};

}  // namespace vexa
