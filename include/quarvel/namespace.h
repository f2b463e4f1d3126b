#ifndef QUARVEL_NAMESPACE_H
#define QUARVEL_NAMESPACE_H

/* Everything the library exports lives in a namespace named after its
   version, so that two versions can be linked into one program. Callers and
   the library's own files name it through the alias `quarvel`, and open it
   with these two macros, so that the version is written once, here. */
#ifdef __cplusplus
#define QUARVEL_NAMESPACE_BEGIN namespace quarvel_3_13 {
#define QUARVEL_NAMESPACE_END }

namespace quarvel_3_13 {}
namespace quarvel = quarvel_3_13;
#endif

#endif
