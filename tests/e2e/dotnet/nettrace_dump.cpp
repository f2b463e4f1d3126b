// Reads a runtime event trace (.nettrace) with the library's reader and
// payload decoders and writes what it found, for the end-to-end checks of
// tests/e2e/dotnet/run.sh:
//
//   quarvel_nettrace_dump TRACE [--methods methods.tsv] [--ilmaps ilmaps.tsv (each map's entries too)]
//                               [--modules modules.tsv]
//
// Prints a JSON summary on stdout (what oracle.py checks): the trace's
// description, how many events of each provider/id/version, what was
// decoded, whether a decoder refused a payload, and the damage if any. (The
// reading's speed is measured by bench/dotnet_bench.cpp.)

#include "format/dotnet_runtime_event_decoder.h"
#include "format/nettrace_reader.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <tuple>

using namespace quarvel;

namespace {

const char* phaseName(DotnetEventPhase phase) {
    switch (phase) {
    case DotnetEventPhase::load:
        return "load";
    case DotnetEventPhase::unload:
        return "unload";
    case DotnetEventPhase::rundownStart:
        return "dcstart";
    case DotnetEventPhase::rundownEnd:
        return "dcend";
    }
    return "?";
}

// Tabs and newlines never occur in the runtime's names; keep the columns safe anyway.
std::string cell(std::string text) {
    for (char& ch : text)
        if (ch == '\t' || ch == '\n')
            ch = ' ';
    return text;
}

std::string hex(uint64_t value) {
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "0x%llx", static_cast<unsigned long long>(value));
    return buffer;
}

struct Outputs {
    std::unique_ptr<std::ofstream> methods, ilmaps, modules;
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s TRACE [--methods F] [--ilmaps F] [--modules F]\n", argv[0]);
        return 2;
    }
    const std::string path = argv[1];
    Outputs out;
    for (int i = 2; i + 1 < argc; i += 2) {
        const std::string option = argv[i], value = argv[i + 1];
        if (option == "--methods")
            out.methods.reset(new std::ofstream(value));
        else if (option == "--ilmaps")
            out.ilmaps.reset(new std::ofstream(value));
        else if (option == "--modules")
            out.modules.reset(new std::ofstream(value));
    }
    if (out.methods)
        *out.methods
            << "phase\tverbose\tversion\ttime_ns\tmethod_id\tmodule_id\tstart\tsize\ttoken\tflags\ttier\trejit_id"
               "\tnamespace\tname\tsignature\n";
    if (out.ilmaps)
        *out.ilmaps << "phase\tversion\ttime_ns\tmethod_id\trejit_id\tentries\tprolog\tepilog\tmax_native\tmap\n";
    if (out.modules)
        *out.modules << "kind\tphase\tversion\ttime_ns\tid\tassembly_id\tflags\tpath_or_name\n";

    Expected<std::unique_ptr<NettraceReader>> opened = NettraceReader::open(path);
    if (!opened) {
        std::fprintf(stderr, "%s\n", opened.reason().text().c_str());
        return 1;
    }
    NettraceReader& reader = **opened;
    std::map<std::tuple<std::string, uint32_t, uint32_t>, uint64_t> perType;
    std::map<std::string, uint64_t> decoded;
    nlohmann::json refusals = nlohmann::json::array();
    uint64_t firstNs = UINT64_MAX, lastNs = 0;
    DotnetMethodEvent method;
    DotnetILToNativeMap map;
    DotnetModuleEvent module;
    DotnetAssemblyEvent assembly;
    NettraceEvent event;
    while (reader.next(event)) {
        firstNs = std::min(firstNs, event.timeNs);
        lastNs = std::max(lastNs, event.timeNs);
        if (!event.metadata)
            continue;
        const NettraceEventMetadata& m = *event.metadata;
        ++perType[std::make_tuple(m.providerName, m.eventId, m.version)];
        const DotnetEventType type = DotnetRuntimeEventDecoder::classify(m);
        Status status;
        std::string key;
        switch (type.kind) {
        case DotnetEventKind::method:
            status = DotnetRuntimeEventDecoder::decodeMethod(event, type, method);
            key = std::string("method.") + phaseName(type.phase);
            if (status && out.methods)
                *out.methods << phaseName(method.phase) << '\t' << method.verbose << '\t' << method.version << '\t'
                             << event.timeNs << '\t' << hex(method.methodId) << '\t' << hex(method.moduleId) << '\t'
                             << hex(method.startAddress) << '\t' << method.size << '\t' << hex(method.token) << '\t'
                             << hex(method.flags) << '\t' << static_cast<int>(method.tier()) << '\t' << method.rejitId
                             << '\t' << cell(method.methodNamespace) << '\t' << cell(method.methodName) << '\t'
                             << cell(method.methodSignature) << '\n';
            break;
        case DotnetEventKind::methodILToNativeMap:
            status = DotnetRuntimeEventDecoder::decodeILToNativeMap(event, type, map);
            key = std::string("ilmap.") + phaseName(type.phase);
            if (status && out.ilmaps) {
                unsigned prolog = 0, epilog = 0;
                uint32_t maxNative = 0;
                std::string entries; // "il:native" pairs in decimal, in the event's order
                for (size_t i = 0; i < map.ilOffsets.size(); ++i) {
                    prolog += map.ilOffsets[i] == DotnetILToNativeMap::kProlog;
                    epilog += map.ilOffsets[i] == DotnetILToNativeMap::kEpilog;
                    maxNative = std::max(maxNative, map.nativeOffsets[i]);
                    entries +=
                        (i ? "," : "") + std::to_string(map.ilOffsets[i]) + ":" + std::to_string(map.nativeOffsets[i]);
                }
                *out.ilmaps << phaseName(map.phase) << '\t' << map.version << '\t' << event.timeNs << '\t'
                            << hex(map.methodId) << '\t' << map.rejitId << '\t' << map.ilOffsets.size() << '\t'
                            << prolog << '\t' << epilog << '\t' << maxNative << '\t' << entries << '\n';
            }
            break;
        case DotnetEventKind::module:
            status = DotnetRuntimeEventDecoder::decodeModule(event, type, module);
            key = std::string("module.") + phaseName(type.phase);
            if (status && out.modules)
                *out.modules << "module\t" << phaseName(module.phase) << '\t' << module.version << '\t' << event.timeNs
                             << '\t' << hex(module.moduleId) << '\t' << hex(module.assemblyId) << '\t'
                             << hex(module.flags) << '\t' << cell(module.ilPath) << '\n';
            break;
        case DotnetEventKind::assembly:
            status = DotnetRuntimeEventDecoder::decodeAssembly(event, type, assembly);
            key = std::string("assembly.") + phaseName(type.phase);
            if (status && out.modules)
                *out.modules << "assembly\t" << phaseName(assembly.phase) << '\t' << assembly.version << '\t'
                             << event.timeNs << '\t' << hex(assembly.assemblyId) << "\t\t" << hex(assembly.flags)
                             << '\t' << cell(assembly.fullyQualifiedName) << '\n';
            break;
        case DotnetEventKind::rundownComplete:
            key = std::string("rundown_complete.") + phaseName(type.phase);
            break;
        case DotnetEventKind::other:
            break;
        }
        if (key.empty())
            continue;
        if (status)
            ++decoded[key];
        else if (refusals.size() < 20)
            refusals.push_back(status.reason().text());
    }

    const NettraceTraceInfo& info = reader.info();
    const NettraceReaderStats& stats = reader.stats();
    nlohmann::json summary;
    summary["bytes"] = reader.size();
    summary["layout"] = info.layout == NettraceLayout::objectStream ? "object stream" : "blocks";
    summary["version"] = std::to_string(info.majorVersion) + "." + std::to_string(info.minorVersion);
    summary["pid"] = info.processId;
    summary["tick_frequency"] = info.tickFrequency;
    summary["first_event_ns"] = firstNs == UINT64_MAX ? 0 : firstNs;
    summary["last_event_ns"] = lastNs;
    summary["complete"] = reader.complete();
    summary["damage"] = reader.damage() ? reader.damage()->text() : "";
    summary["events"] = stats.events;
    summary["events_without_metadata"] = stats.eventsWithoutMetadata;
    summary["dropped_events"] = stats.droppedEvents;
    summary["decoded"] = decoded;
    summary["refused"] = refusals;
    nlohmann::json types = nlohmann::json::array();
    for (const auto& entry : perType)
        types.push_back({{"provider", std::get<0>(entry.first)},
                         {"id", std::get<1>(entry.first)},
                         {"version", std::get<2>(entry.first)},
                         {"count", entry.second}});
    summary["types"] = types;
    std::printf("%s\n", summary.dump(2).c_str());
    return reader.damage() || !refusals.empty() ? 3 : 0;
}
