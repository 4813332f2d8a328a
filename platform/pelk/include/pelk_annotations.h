// pelk_annotations.h - the words in which code tells the compiler about locks.
//
// clang's thread-safety analysis reads them, g++ does not. A field marked PELK_GUARDED_BY(mutex) that is touched
// without the mutex does not compile under clang, nor does a call of a PELK_REQUIRES(mutex) function.
#ifndef PELK_ANNOTATIONS_H
#define PELK_ANNOTATIONS_H

#if defined(__clang__)
#define PELK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define PELK_THREAD_ATTRIBUTE(x)
#endif
#define PELK_CAPABILITY(x) PELK_THREAD_ATTRIBUTE(capability(x))
#define PELK_SCOPED_CAPABILITY PELK_THREAD_ATTRIBUTE(scoped_lockable)
#define PELK_GUARDED_BY(x) PELK_THREAD_ATTRIBUTE(guarded_by(x))
#define PELK_REQUIRES(...) PELK_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define PELK_EXCLUDES(...) PELK_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define PELK_ACQUIRE(...) PELK_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define PELK_RELEASE(...) PELK_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define PELK_NO_ANALYSIS PELK_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif  // PELK_ANNOTATIONS_H
