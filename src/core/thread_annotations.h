#pragma once

// Clang's thread-safety attributes; nothing for other compilers.
#if defined(__clang__)
#define KOVO_TSA(x) __attribute__((x))
#else
#define KOVO_TSA(x)
#endif

#define KOVO_CAPABILITY(x) KOVO_TSA(capability(x))
#define KOVO_SCOPED_CAPABILITY KOVO_TSA(scoped_lockable)
#define KOVO_GUARDED_BY(x) KOVO_TSA(guarded_by(x))
#define KOVO_REQUIRES(...) KOVO_TSA(requires_capability(__VA_ARGS__))
#define KOVO_ACQUIRE(...) KOVO_TSA(acquire_capability(__VA_ARGS__))
#define KOVO_RELEASE(...) KOVO_TSA(release_capability(__VA_ARGS__))
#define KOVO_TRY_ACQUIRE(...) KOVO_TSA(try_acquire_capability(__VA_ARGS__))
#define KOVO_EXCLUDES(...) KOVO_TSA(locks_excluded(__VA_ARGS__))
#define KOVO_NO_THREAD_SAFETY_ANALYSIS KOVO_TSA(no_thread_safety_analysis)
