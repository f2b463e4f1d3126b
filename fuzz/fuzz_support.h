#ifndef QUARVEL_FUZZ_SUPPORT_H
#define QUARVEL_FUZZ_SUPPORT_H

// Shared pieces of the fuzz targets. Each target is one LLVMFuzzerTestOneInput;
// the same sources are linked into libFuzzer binaries (fuzz/) and into the
// replay tests of a normal build (tests/fuzz_replay/), so nothing here may
// depend on libFuzzer itself.

#include "index/jit_data_manager.h"
#include "model/jit_method.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quarvel_fuzz {

// Every log line is formatted (so the message code runs) and dropped;
// QUARVEL_FUZZ_LOG=1 keeps them on stderr for debugging a crash. A failed
// internal check of the library aborts: it is a finding, like a crash.
void setUpLogging();

// A directory of this process only, under $TMPDIR (or /dev/shm, or /tmp),
// created on first use and removed at exit.
const std::string& scratchDir();

// Writes bytes to path (replacing it); false when the file system refuses.
bool writeFile(const std::string& path, const uint8_t* data, size_t size);

// Takes fixed-size settings off the front of an input; an exhausted input
// yields zeros, so every input is valid.
class InputCursor {
public:
    InputCursor(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    uint8_t u8() { return m_pos < m_size ? m_data[m_pos++] : 0; }
    uint16_t u16() { return static_cast<uint16_t>(u8() | u8() << 8); }
    uint32_t u32() { return static_cast<uint32_t>(u16()) | static_cast<uint32_t>(u16()) << 16; }
    uint64_t u64() { return static_cast<uint64_t>(u32()) | static_cast<uint64_t>(u32()) << 32; }
    const uint8_t* rest() const { return m_data + m_pos; }
    size_t restSize() const { return m_size - m_pos; }
    std::vector<uint8_t> restBytes() const { return std::vector<uint8_t>(rest(), rest() + restSize()); }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

// Calls every read-only operation of a decoded or registered method (names,
// module, source, regions and their inline trees, line tables at several
// jit rvas, the dumps with disassembly), so that whatever the decoders let
// through is also safe to look at.
void exerciseMethod(quarvel::JitMethod& method);

// Queries a filled data manager the way the facades do: resolves addresses
// in and around every registered region at times around its life, by jit
// rva too, looks symbols up by module and id, translates addresses, finds
// call targets and overlapped regions, and exercises every method it finds.
// seed varies the extra probes.
void queryDataManager(quarvel::JitDataManager& dataManager, uint64_t seed);

// Reads trace bytes held in memory through the reading pass into
// dataManager, as process 7 of host 1 with the given jit rva base.
void readTrace(const std::vector<uint8_t>& trace, quarvel::decoding_mode_t mode, quarvel::jit_rva_t jitRvaBase,
               quarvel::JitDataManager& dataManager);

// One sized record around a body, preceded by a CollectorType record when
// collector is not 0.
std::vector<uint8_t> frameRecord(uint32_t type, const uint8_t* body, size_t size, uint32_t collector);

// The layouts of the inputs, shared with the seed generator.
namespace layout {
// Body targets: one selector byte, one decoding-mode byte, the record body.
const size_t kBodyHeader = 2;
// The whole-file target: architecture, flags, a u16 split point, then the file.
const size_t kFileHeader = 4;
// The file-name target: one flag byte, then names separated by '\n'.
const size_t kNamesHeader = 1;
} // namespace layout

} // namespace quarvel_fuzz

#endif
