// Names for clang's thread-safety attributes: a member says which lock guards it, a function which
// lock it needs, and the compiler checks both (-Wthread-safety). Other compilers see nothing.
// https://clang.llvm.org/docs/ThreadSafetyAnalysis.html
#pragma once

#if defined(__clang__)
#define NX_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define NX_THREAD_ATTRIBUTE(x)
#endif

#define NX_CAPABILITY(name) NX_THREAD_ATTRIBUTE(capability(name))
#define NX_SCOPED_CAPABILITY NX_THREAD_ATTRIBUTE(scoped_lockable)
#define NX_ASSERT_CAPABILITY(...) NX_THREAD_ATTRIBUTE(assert_capability(__VA_ARGS__))
#define NX_GUARDED_BY(mutex) NX_THREAD_ATTRIBUTE(guarded_by(mutex))
#define NX_REQUIRES(...) NX_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define NX_ACQUIRE(...) NX_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define NX_TRY_ACQUIRE(...) NX_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define NX_RELEASE(...) NX_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define NX_NO_THREAD_SAFETY_ANALYSIS NX_THREAD_ATTRIBUTE(no_thread_safety_analysis)
