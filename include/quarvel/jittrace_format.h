#ifndef QUARVEL_JITTRACE_FORMAT_H
#define QUARVEL_JITTRACE_FORMAT_H

/* Record types of a JIT trace file (see docs/trace-format.md). Each record
   starts with a little-endian u32 type; value records carry one u32, sized
   records a u32 body size followed by the body. Each load pair has a 32-bit
   variant (first) and a 64-bit variant (second) that share one layout. */

#include <stdint.h>

enum quarvel_jittrace_type {
    quarvel_jt_FunctionLoad32 = 0, /* method load, version 0 */
    quarvel_jt_FunctionLoad64 = 2,
    quarvel_jt_FunctionLoad32_v1 = 4, /* method load, version 1 */
    quarvel_jt_FunctionLoad64_v1 = 5,
    quarvel_jt_FunctionLoad32_v2 = 6, /* method load, version 2 */
    quarvel_jt_FunctionLoad64_v2 = 7,
    quarvel_jt_FunctionLoad32_v3 = 8, /* method load, version 3 */
    quarvel_jt_FunctionLoad64_v3 = 9,
    quarvel_jt_FunctionUpdate = 10, /* method update, version 3 load layout */
    quarvel_jt_FunctionInlineLoad32 = 11,
    quarvel_jt_FunctionInlineLoad64 = 12,
    quarvel_jt_CollectorType = 13, /* value record */
    quarvel_jt_FunctionUpdate_v2 = 14,
    quarvel_jt_ManagedRuntimeInfo = 15,
    quarvel_jt_Magic = 0x400000 /* value record */
};

/* Runtime types of the managed runtime info record. */
enum quarvel_runtime_type { quarvel_runtime_unknown = 0, quarvel_runtime_java = 1, quarvel_runtime_python = 2 };

#endif
