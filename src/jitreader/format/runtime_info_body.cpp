#include "format/method_tail.h"

QUARVEL_NAMESPACE_BEGIN

// Runtime type, then the version text and the name text, each counted.
Expected<TraceRuntimeInfo> decodeRuntimeInfo(const Record& record, const std::string& file) {
    TraceRuntimeInfo info;
    ByteCursor cursor(record.data.data(), record.data.size(), ByteCursor::Order::little, record.bodyOffset());
    cursor.u32(info.runtimeType, "runtime type");
    cursor.countedString(info.version, "runtime version");
    cursor.countedString(info.name, "runtime name");
    if (!cursor)
        return bodyReason(cursor, file, "managed runtime info", "");
    return info;
}

QUARVEL_NAMESPACE_END
