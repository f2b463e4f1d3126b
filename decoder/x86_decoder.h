#ifndef QUARVEL_DECODER_X86_DECODER_H
#define QUARVEL_DECODER_X86_DECODER_H

// The x86 instruction decoder behind the diagnostic dumps: decodes one
// instruction of at most 15 bytes in 32-bit or 64-bit mode and formats it in
// Intel syntax at its runtime address. The decoder library stays behind this
// file; nothing else includes its headers.

#include <cstddef>
#include <cstdint>

namespace quarvel_x86 {

enum class Mode { Bits32, Bits64 };

constexpr size_t kMaxInstructionLength = 15;
constexpr size_t kTextBufferLength = 200;

struct Disassembled {
    enum Stage { Ok, DecodeFailed, FormatFailed };
    Stage stage = DecodeFailed;
    uint32_t error = 0; // the decoder's status when stage != Ok
    uint8_t length = 0; // instruction length when stage == Ok
};

class Decoder {
public:
    explicit Decoder(Mode mode);

    // Decodes the instruction at bytes (at most min(length, 15) are read) and
    // writes its text, NUL-terminated, into text[0..textLength).
    Disassembled disassemble(const uint8_t* bytes, size_t length, uint64_t address, char* text,
                             size_t textLength) const;

    // The absolute target of a relative call or jump at address, if the instruction is one.
    bool branchTarget(const uint8_t* bytes, size_t length, uint64_t address, uint64_t& target) const;

private:
    Mode m_mode;
};

} // namespace quarvel_x86

#endif
