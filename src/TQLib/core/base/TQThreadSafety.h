// Marks for the compiler's thread-safety analysis: which lock guards a member, what a function does to a
// lock. They are macros because compilers without the analysis (all but clang) complain about its attributes.
#pragma once

#if defined(__clang__)
#define TQ_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define TQ_THREAD_SAFETY(attribute)
#endif

#define TQ_LOCK_CLASS TQ_THREAD_SAFETY(capability("lock"))
#define TQ_GUARD_CLASS TQ_THREAD_SAFETY(scoped_lockable)
#define TQ_GUARDED_BY(lock) TQ_THREAD_SAFETY(guarded_by(lock))
#define TQ_REQUIRES(lock) TQ_THREAD_SAFETY(requires_capability(lock))
#define TQ_ACQUIRES(lock) TQ_THREAD_SAFETY(acquire_capability(lock))
#define TQ_ACQUIRES_SHARED(lock) TQ_THREAD_SAFETY(acquire_shared_capability(lock))
#define TQ_RELEASES TQ_THREAD_SAFETY(release_generic_capability())
#define TQ_NOT_ANALYSED TQ_THREAD_SAFETY(no_thread_safety_analysis)
