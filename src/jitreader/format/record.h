#ifndef QUARVEL_FORMAT_RECORD_H
#define QUARVEL_FORMAT_RECORD_H

#include <quarvel/jittrace_format.h>
#include <quarvel/types.h>

#include <cstdint>
#include <vector>

// The agent's name of a record type: QUARVEL3_TRACE_JITTRACE(FunctionUpdate_v2) is 14.
#define QUARVEL3_TRACE_JITTRACE(name) quarvel_jt_##name

namespace quarvel_3_13 {

// One trace record as read: where its type field starts, its type, and its
// body (or the four bytes of a value record's value).
struct Record {
    u64 offset = 0;
    u32 type = 0;
    std::vector<uint8_t> data;
};

} // namespace quarvel_3_13

#endif
