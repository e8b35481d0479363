// Names for clang's thread-safety attributes, which vanish under other compilers. script/lint runs
// clang's check of them.
#pragma once

#if defined(__clang__)
#define ZEV_ATTRIBUTE(x) __attribute__((x))
#else
#define ZEV_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) ZEV_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY ZEV_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) ZEV_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) ZEV_ATTRIBUTE(pt_guarded_by(x))
#define REQUIRES(...) ZEV_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) ZEV_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) ZEV_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) ZEV_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) ZEV_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) ZEV_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define EXCLUDES(...) ZEV_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS ZEV_ATTRIBUTE(no_thread_safety_analysis)
