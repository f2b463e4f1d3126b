// The runtime's event trace (.nettrace): the whole file through the reader,
// every event's payload through the runtime event decoders it matches.
//
// Input: the file's bytes.

#include "fuzz_support.h"

#include "format/dotnet_runtime_event_decoder.h"
#include "format/nettrace_reader.h"

#include <cstdint>

using namespace quarvel;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    (void)NettraceReader::looksLikeNettrace(data,
                                            size < NettraceReader::kSniffBytes ? size : NettraceReader::kSniffBytes);
    NettraceReader reader(data, size, "fuzz.nettrace");
    DotnetMethodEvent method;
    DotnetILToNativeMap map;
    DotnetModuleEvent module;
    DotnetAssemblyEvent assembly;
    NettraceEvent event;
    uint64_t sum = 0;
    while (reader.next(event)) {
        // Every payload byte is handed out: touch the first and the last.
        if (event.payloadSize)
            sum += event.payload[0] + event.payload[event.payloadSize - 1];
        if (!event.metadata)
            continue;
        sum += event.metadata->fields.size() + event.metadata->providerName.size();
        const DotnetEventType type = DotnetRuntimeEventDecoder::classify(*event.metadata);
        switch (type.kind) {
        case DotnetEventKind::method:
            if (DotnetRuntimeEventDecoder::decodeMethod(event, type, method))
                sum += method.methodName.size() + static_cast<uint64_t>(method.tier());
            break;
        case DotnetEventKind::methodILToNativeMap:
            if (DotnetRuntimeEventDecoder::decodeILToNativeMap(event, type, map) && !map.ilOffsets.empty())
                sum += map.ilOffsets.back() + map.nativeOffsets.back();
            break;
        case DotnetEventKind::module:
            if (DotnetRuntimeEventDecoder::decodeModule(event, type, module))
                sum += module.ilPath.size();
            break;
        case DotnetEventKind::assembly:
            if (DotnetRuntimeEventDecoder::decodeAssembly(event, type, assembly))
                sum += assembly.fullyQualifiedName.size();
            break;
        default:
            break;
        }
    }
    if (const Reason* why = reader.damage())
        sum += why->text().size();
    sum += reader.toNanoseconds(sum) + reader.info().keyValues.size();
    // The reader stops for good: a second call finds nothing more.
    if (reader.next(event))
        __builtin_trap();
    return sum == 42 ? 0 : 0;
}
