#ifndef QUARVEL_FORMAT_DOTNET_RUNTIME_EVENT_DECODER_H
#define QUARVEL_FORMAT_DOTNET_RUNTIME_EVENT_DECODER_H

// Recognises the runtime's method, module and assembly events by provider
// name, event id and version (its events carry no names or field lists in
// the trace) and decodes their payloads. Fields are read in the order the
// runtime's manifest gives them; a version newer than the ones known here
// decodes the fields it shares with them and ignores what follows.

#include "format/dotnet_runtime_events.h"
#include "format/nettrace_types.h"
#include "support/result.h"

QUARVEL_NAMESPACE_BEGIN

class DotnetRuntimeEventDecoder {
public:
    static const char* const kRuntimeProvider; // Microsoft-Windows-DotNETRuntime
    static const char* const kRundownProvider; // Microsoft-Windows-DotNETRuntimeRundown

    static DotnetEventType classify(const NettraceEventMetadata& metadata);

    // Each decodes into out, reusing its buffers. A payload too short for the
    // fields its version declares is refused with the field and its offset.
    static Status decodeMethod(const NettraceEvent& event, const DotnetEventType& type, DotnetMethodEvent& out);
    static Status decodeILToNativeMap(const NettraceEvent& event, const DotnetEventType& type,
                                      DotnetILToNativeMap& out);
    static Status decodeModule(const NettraceEvent& event, const DotnetEventType& type, DotnetModuleEvent& out);
    static Status decodeAssembly(const NettraceEvent& event, const DotnetEventType& type, DotnetAssemblyEvent& out);
};

QUARVEL_NAMESPACE_END

#endif
