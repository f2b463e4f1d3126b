// Reads a runtime event trace (.nettrace) with the library's reader and
// payload decoders and writes what it found, for the end-to-end checks of
// tests/e2e/dotnet/run.sh:
//
//   quarvel_nettrace_dump TRACE [--methods methods.tsv] [--ilmaps ilmaps.tsv (each map's entries too)]
//                               [--modules modules.tsv] [--repeat N]
//
// Prints a JSON summary on stdout: the trace's description, how many events
// of each provider/id/version, what was decoded, whether a decoder refused
// a payload, the damage if any, and how long the reading took (the best of
// --repeat passes over the mapped file, reading alone and with decoding).

#include "format/dotnet_runtime_event_decoder.h"
#include "format/nettrace_reader.h"

#include <nlohmann/json.hpp>

#include <chrono>
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

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s TRACE [--methods F] [--ilmaps F] [--modules F] [--repeat N]\n", argv[0]);
        return 2;
    }
    const std::string path = argv[1];
    Outputs out;
    int repeat = 1;
    for (int i = 2; i + 1 < argc; i += 2) {
        const std::string option = argv[i], value = argv[i + 1];
        if (option == "--methods")
            out.methods.reset(new std::ofstream(value));
        else if (option == "--ilmaps")
            out.ilmaps.reset(new std::ofstream(value));
        else if (option == "--modules")
            out.modules.reset(new std::ofstream(value));
        else if (option == "--repeat")
            repeat = std::max(1, std::stoi(value));
    }
    if (out.methods)
        *out.methods
            << "phase\tverbose\tversion\ttime_ns\tmethod_id\tmodule_id\tstart\tsize\ttoken\tflags\ttier\trejit_id"
               "\tnamespace\tname\tsignature\n";
    if (out.ilmaps)
        *out.ilmaps << "phase\tversion\ttime_ns\tmethod_id\trejit_id\tentries\tprolog\tepilog\tno_mapping\tmax_native"
                       "\tmap\n";
    if (out.modules)
        *out.modules << "kind\tphase\tversion\ttime_ns\tid\tassembly_id\tflags\tpath_or_name\tpdb_signature\tpdb_"
                        "age\tpdb_path\n";

    // Reading alone, then reading and decoding every runtime event, each the
    // best of the passes over the mapped file (nothing written).
    double readSeconds = 1e30, decodeSeconds = 1e30;
    for (int pass = 0; pass < 2 * repeat; ++pass) {
        const bool decode = pass % 2 == 1;
        Expected<std::unique_ptr<NettraceReader>> reader = NettraceReader::open(path);
        if (!reader) {
            std::fprintf(stderr, "%s\n", reader.reason().text().c_str());
            return 1;
        }
        const auto start = std::chrono::steady_clock::now();
        NettraceEvent event;
        DotnetMethodEvent method;
        DotnetILToNativeMap map;
        DotnetModuleEvent module;
        uint64_t touched = 0;
        while ((*reader)->next(event)) {
            touched += event.payloadSize;
            if (!decode || !event.metadata)
                continue;
            const DotnetEventType type = DotnetRuntimeEventDecoder::classify(*event.metadata);
            if (type.kind == DotnetEventKind::method)
                touched += DotnetRuntimeEventDecoder::decodeMethod(event, type, method).ok();
            else if (type.kind == DotnetEventKind::methodILToNativeMap)
                touched += DotnetRuntimeEventDecoder::decodeILToNativeMap(event, type, map).ok();
            else if (type.kind == DotnetEventKind::module)
                touched += DotnetRuntimeEventDecoder::decodeModule(event, type, module).ok();
        }
        const double seconds = secondsSince(start);
        (decode ? decodeSeconds : readSeconds) = std::min(decode ? decodeSeconds : readSeconds, seconds);
        if (touched == 0 && (*reader)->stats().events != 0)
            std::fprintf(stderr, "no payload bytes\n");
    }

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
                unsigned prolog = 0, epilog = 0, none = 0;
                uint32_t maxNative = 0;
                std::string entries; // "il:native" pairs in decimal, in the event's order
                for (size_t i = 0; i < map.ilOffsets.size(); ++i) {
                    prolog += map.ilOffsets[i] == DotnetILToNativeMap::kProlog;
                    epilog += map.ilOffsets[i] == DotnetILToNativeMap::kEpilog;
                    none += map.ilOffsets[i] == DotnetILToNativeMap::kNoMapping;
                    maxNative = std::max(maxNative, map.nativeOffsets[i]);
                    entries +=
                        (i ? "," : "") + std::to_string(map.ilOffsets[i]) + ":" + std::to_string(map.nativeOffsets[i]);
                }
                *out.ilmaps << phaseName(map.phase) << '\t' << map.version << '\t' << event.timeNs << '\t'
                            << hex(map.methodId) << '\t' << map.rejitId << '\t' << map.ilOffsets.size() << '\t'
                            << prolog << '\t' << epilog << '\t' << none << '\t' << maxNative << '\t' << entries << '\n';
            }
            break;
        case DotnetEventKind::module:
            status = DotnetRuntimeEventDecoder::decodeModule(event, type, module);
            key = std::string("module.") + phaseName(type.phase);
            if (status && out.modules) {
                std::string guid;
                for (uint8_t b : module.managedPdbSignature) {
                    char two[3];
                    std::snprintf(two, sizeof two, "%02x", b);
                    guid += two;
                }
                *out.modules << "module\t" << phaseName(module.phase) << '\t' << module.version << '\t' << event.timeNs
                             << '\t' << hex(module.moduleId) << '\t' << hex(module.assemblyId) << '\t'
                             << hex(module.flags) << '\t' << cell(module.ilPath) << '\t' << guid << '\t'
                             << module.managedPdbAge << '\t' << cell(module.managedPdbBuildPath) << '\n';
            }
            break;
        case DotnetEventKind::assembly:
            status = DotnetRuntimeEventDecoder::decodeAssembly(event, type, assembly);
            key = std::string("assembly.") + phaseName(type.phase);
            if (status && out.modules)
                *out.modules << "assembly\t" << phaseName(assembly.phase) << '\t' << assembly.version << '\t'
                             << event.timeNs << '\t' << hex(assembly.assemblyId) << "\t\t" << hex(assembly.flags)
                             << '\t' << cell(assembly.fullyQualifiedName) << "\t\t\t\n";
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
    summary["file"] = path;
    summary["bytes"] = reader.size();
    summary["layout"] = info.layout == NettraceLayout::objectStream ? "object stream" : "blocks";
    summary["version"] = std::to_string(info.majorVersion) + "." + std::to_string(info.minorVersion);
    summary["pid"] = info.processId;
    summary["pointer_size"] = info.pointerSize;
    summary["tick_frequency"] = info.tickFrequency;
    summary["sync_time_ns"] = reader.toNanoseconds(info.syncTimeTicks);
    summary["first_event_ns"] = firstNs == UINT64_MAX ? 0 : firstNs;
    summary["last_event_ns"] = lastNs;
    summary["complete"] = reader.complete();
    summary["damage"] = reader.damage() ? reader.damage()->text() : "";
    summary["events"] = stats.events;
    summary["events_without_metadata"] = stats.eventsWithoutMetadata;
    summary["dropped_events"] = stats.droppedEvents;
    summary["metadata_definitions"] = stats.metadataDefinitions;
    summary["blocks"] = {{"event", stats.eventBlocks},
                         {"metadata", stats.metadataBlocks},
                         {"stack", stats.stackBlocks},
                         {"sequence_point", stats.sequencePoints},
                         {"other", stats.otherBlocks}};
    summary["decoded"] = decoded;
    summary["refused"] = refusals;
    nlohmann::json types = nlohmann::json::array();
    for (const auto& entry : perType)
        types.push_back({{"provider", std::get<0>(entry.first)},
                         {"id", std::get<1>(entry.first)},
                         {"version", std::get<2>(entry.first)},
                         {"count", entry.second}});
    summary["types"] = types;
    summary["read_seconds"] = readSeconds;
    summary["read_and_decode_seconds"] = decodeSeconds;
    std::printf("%s\n", summary.dump(2).c_str());
    return reader.damage() || !refusals.empty() ? 3 : 0;
}
