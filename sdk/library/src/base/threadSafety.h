/// Which lock guards what, in words that the compiler checks. They mean something to clang where its standard
/// library's locks say what they are (libc++ with _LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS), and nothing
/// elsewhere.
///
/// The analysis looks at one function at a time, and not into constructors and destructors.
#ifndef KIV_THREAD_SAFETY_H
#define KIV_THREAD_SAFETY_H

#include <mutex>

#include <kiv/kiv_export.h>

#ifdef _LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS
#define KIV_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define KIV_THREAD_SAFETY(attribute)
#endif

#define KIV_GUARDED_BY(lock) KIV_THREAD_SAFETY(guarded_by(lock))             ///< A member.
#define KIV_REQUIRES(lock) KIV_THREAD_SAFETY(requires_capability(lock))      ///< The caller holds it.
#define KIV_EXCLUDES(lock) KIV_THREAD_SAFETY(locks_excluded(lock))           ///< The caller does not.
#define KIV_ACQUIRE(...) KIV_THREAD_SAFETY(acquire_capability(__VA_ARGS__))  ///< Without a name: itself.
#define KIV_RELEASE() KIV_THREAD_SAFETY(release_capability())

namespace kiv {

/// A std::unique_lock that the analysis knows: for the wait on a condition variable.
class KIV_THREAD_SAFETY(scoped_lockable) UniqueLock : public std::unique_lock<std::mutex> {
  public:
    explicit UniqueLock(std::mutex& mutex) KIV_ACQUIRE(mutex) : std::unique_lock<std::mutex>(mutex) {}
    ~UniqueLock() KIV_RELEASE() = default;
    void lock() = delete;  // The analysis would not see it, nor the next.
    void unlock() = delete;
};

/// A std::recursive_mutex that the analysis knows.
class KIV_API KIV_THREAD_SAFETY(capability("mutex")) RecursiveMutex : public std::recursive_mutex {
  public:
    void lock() KIV_ACQUIRE() { std::recursive_mutex::lock(); }
    void unlock() KIV_RELEASE() { std::recursive_mutex::unlock(); }
};

}  // namespace kiv

#endif
