#pragma once

#include <mutex>

#if defined(__clang__)
#define CHECKED_LOCK(attribute) __attribute__((attribute))
#else
#define CHECKED_LOCK(attribute)  // g++ cannot check locks
#endif

/// On a field: only a thread that holds the mutex may use the field. clang checks it.
#define GUARDED_BY(mutex) CHECKED_LOCK(guarded_by(mutex))
/// On a function: only a thread that holds the mutex may call it.
#define REQUIRES(mutex) CHECKED_LOCK(requires_capability(mutex))

/// A std::mutex whose use clang checks. To wait, use a std::condition_variable_any in a loop, which
/// clang checks too, and not with a predicate, which it does not.
class CHECKED_LOCK(capability("mutex")) Mutex {
 public:
  void lock() CHECKED_LOCK(acquire_capability()) { mutex.lock(); }
  void unlock() CHECKED_LOCK(release_capability()) { mutex.unlock(); }

 private:
  std::mutex mutex;
};

/// Holds a mutex until the end of the scope.
class CHECKED_LOCK(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex &held) CHECKED_LOCK(acquire_capability(held)) : mutex(held) {
    mutex.lock();
  }
  ~MutexLock() CHECKED_LOCK(release_capability()) { mutex.unlock(); }
  MutexLock(const MutexLock &) = delete;

 private:
  Mutex &mutex;
};
