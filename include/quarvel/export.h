#ifndef QUARVEL_EXPORT_H
#define QUARVEL_EXPORT_H

#include <quarvel/namespace.h>

/* Everything a caller may use carries QUARVEL_API; the library is built with
   hidden default visibility, so anything else stays private to it. */
#if defined(__GNUC__)
#define QUARVEL_API __attribute__((visibility("default")))
#else
#define QUARVEL_API
#endif

#endif
