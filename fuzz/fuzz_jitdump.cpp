// Jitdump files: the input is the whole file. Every record is walked and
// every field touched, debug records are paired with their loads and vote on
// the address bias, as the reading pass does. The views the reader hands out
// must lie inside the input and the records must follow each other without
// gaps; a broken promise traps.

#include "fuzz_support.h"

#include "format/jitdump_debug_bias.h"
#include "format/jitdump_debug_pairing.h"
#include "format/jitdump_reader.h"

using namespace quarvel;

namespace {

const uint8_t* g_begin = nullptr;
const uint8_t* g_end = nullptr;

void requireInside(const void* p, uint64_t n) {
    const auto* b = static_cast<const uint8_t*>(p);
    if (n == 0)
        return;
    if (!b || b < g_begin || n > static_cast<uint64_t>(g_end - b))
        __builtin_trap();
}

uint64_t touch(const void* p, uint64_t n) {
    requireInside(p, n);
    uint64_t sum = 0;
    for (uint64_t i = 0; i < n; ++i)
        sum += static_cast<const uint8_t*>(p)[i];
    return sum;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quarvel_fuzz::setUpLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    g_begin = data;
    g_end = data + size;
    const bool detected = JitdumpReader::detect(data, size);
    Expected<JitdumpReader> reader = JitdumpReader::fromBytes(data, size, "fuzz.dump");
    if (!reader) {
        (void)reader.reason().text();
        return 0;
    }
    if (!detected)
        __builtin_trap(); // a readable header starts with the magic
    JitdumpDebugPairing pairing;
    JitdumpDebugBias bias(reader->header().elfMachine);
    uint64_t expected = reader->header().totalSize;
    uint64_t sink = 0;
    JitdumpRecord r;
    while (reader->next(r)) {
        if (r.offset != expected || r.totalSize < JitdumpReader::kPrefixSize || r.end() > size)
            __builtin_trap();
        expected = r.end();
        switch (r.kind) {
        case JitdumpRecordKind::codeLoad:
            sink += touch(r.load.name.data(), r.load.name.size());
            sink += touch(r.load.code, r.load.codeSize);
            if (r.load.code && r.load.code != data + r.load.codeOffset)
                __builtin_trap();
            if (const JitdumpDebugInfo* info = pairing.takeFor(r.load.codeAddr)) {
                bias.observe(*info, r.load.codeAddr, r.load.codeSize);
                for (const JitdumpDebugEntry& e : info->entries)
                    sink += touch(e.file.data(), e.file.size()) + e.address;
            }
            break;
        case JitdumpRecordKind::debugInfo:
            for (const JitdumpDebugEntry& e : r.debugInfo.entries)
                sink += touch(e.file.data(), e.file.size()) + static_cast<uint64_t>(e.line);
            pairing.addDebugInfo(r.debugInfo);
            break;
        case JitdumpRecordKind::unwindingInfo:
            sink += touch(r.unwinding.data, r.unwinding.unwindDataSize);
            if (r.unwinding.ehFrameHdrSize > r.unwinding.unwindDataSize)
                __builtin_trap();
            break;
        case JitdumpRecordKind::codeMove:
            sink += r.move.newCodeAddr ^ r.move.oldCodeAddr;
            break;
        case JitdumpRecordKind::close:
        case JitdumpRecordKind::unknown:
            break;
        }
    }
    if (reader->completeEnd() != expected)
        __builtin_trap();
    if (const Reason* why = reader->stopReason())
        sink += why->text().size();
    else if (expected != size)
        __builtin_trap(); // a clean end is the end of the file
    sink += bias.bias() + pairing.waiting();
    // The result is used, so the reads above are not optimised away.
    if (sink == 0x5A5A5A5A5A5A5A5AULL)
        return 1;
    return 0;
}
