// What compilers do differently, all of it: the rest of the tree is C++20, and a new compiler is taught here.
#pragma once

// The export mark.
#if defined(_WIN32)
#if defined(TQ_BUILDING_LIBRARY)
#define TQLIB_API __declspec(dllexport)
#else
#define TQLIB_API __declspec(dllimport)
#endif
#else
#define TQLIB_API __attribute__((visibility("default")))
#endif

// Marks for the compiler's thread-safety analysis: which lock guards a member, what a function does to a
// lock. A mark without a lock means the object itself. Compilers without the analysis (all but clang) complain
// about its attributes.
#if defined(__clang__)
#define TQ_THREAD_SAFETY(...) __attribute__((__VA_ARGS__))
#else
#define TQ_THREAD_SAFETY(...)
#endif

#define TQ_LOCK_CLASS TQ_THREAD_SAFETY(capability("lock"))
#define TQ_GUARD_CLASS TQ_THREAD_SAFETY(scoped_lockable)
#define TQ_GUARDED_BY(lock) TQ_THREAD_SAFETY(guarded_by(lock))
#define TQ_REQUIRES(lock) TQ_THREAD_SAFETY(requires_capability(lock))
#define TQ_ACQUIRES(...) TQ_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define TQ_ACQUIRES_SHARED(lock) TQ_THREAD_SAFETY(acquire_shared_capability(lock))
#define TQ_ACQUIRES_IF_TRUE TQ_THREAD_SAFETY(try_acquire_capability(true))
#define TQ_RELEASES(...) TQ_THREAD_SAFETY(release_generic_capability(__VA_ARGS__))
#define TQ_NOT_ANALYSED TQ_THREAD_SAFETY(no_thread_safety_analysis)
