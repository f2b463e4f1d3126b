#ifndef QUARVEL_SUPPORT_ASSERTION_H
#define QUARVEL_SUPPORT_ASSERTION_H

// Preconditions that file content can reach are checked, not assumed: a
// failed check logs the condition's text as an ERROR line, tells the observer
// if one is installed, and the caller refuses the operation. Nothing aborts.

#include <quarvel/namespace.h>

QUARVEL_NAMESPACE_BEGIN

typedef void (*AssertionHandler)(const char* condition, const char* file, int line);

// Called after the log line for every failed check (null: none); returns the
// previous observer. Tests and fuzz targets use it to fail on any check.
AssertionHandler setAssertionObserver(AssertionHandler observer);

void assertionFailed(const char* condition, const char* file, int line);

QUARVEL_NAMESPACE_END

// QV_CHECK(cond, onFailure): when cond is false, reports "cond" and runs
// onFailure (`return meNotFound`, `continue`, `break`, ...). Written as an
// if/else rather than do/while so that continue and break reach the caller's
// loop; a stray `else` after it fails to compile instead of binding wrongly.
#define QV_CHECK(cond, onFailure)                              \
    if (cond) {                                                \
    } else {                                                   \
        ::quarvel::assertionFailed(#cond, __FILE__, __LINE__); \
        onFailure;                                             \
    }

// The same with the condition's text given explicitly.
#define QV_CHECK_TEXT(cond, text, onFailure)                  \
    if (cond) {                                               \
    } else {                                                  \
        ::quarvel::assertionFailed(text, __FILE__, __LINE__); \
        onFailure;                                            \
    }

#endif
