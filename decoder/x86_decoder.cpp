#include "x86_decoder.h"

#include <Zydis/Zydis.h>

#include <algorithm>

namespace quarvel_x86 {

namespace {

bool initDecoder(Mode mode, ZydisDecoder& decoder) {
    const ZyanStatus status = mode == Mode::Bits64
                                  ? ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64)
                                  : ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LEGACY_32, ZYDIS_STACK_WIDTH_32);
    return ZYAN_SUCCESS(status);
}

} // namespace

Decoder::Decoder(Mode mode) : m_mode(mode) {}

Disassembled Decoder::disassemble(const uint8_t* bytes, size_t length, uint64_t address, char* text,
                                  size_t textLength) const {
    Disassembled result;
    if (textLength)
        text[0] = '\0';
    ZydisDecoder decoder;
    if (!initDecoder(m_mode, decoder)) {
        result.error = ZYAN_STATUS_FAILED;
        return result;
    }
    ZydisDecodedInstruction instruction;
    ZydisDecodedOperand operands[ZYDIS_MAX_OPERAND_COUNT];
    const ZyanStatus decoded =
        ZydisDecoderDecodeFull(&decoder, bytes, std::min(length, kMaxInstructionLength), &instruction, operands);
    if (!ZYAN_SUCCESS(decoded)) {
        result.error = decoded;
        return result;
    }
    ZydisFormatter formatter;
    ZyanStatus formatted = ZydisFormatterInit(&formatter, ZYDIS_FORMATTER_STYLE_INTEL);
    if (ZYAN_SUCCESS(formatted))
        formatted =
            ZydisFormatterFormatInstruction(&formatter, &instruction, operands, instruction.operand_count_visible, text,
                                            textLength, address, ZYAN_NULL);
    if (!ZYAN_SUCCESS(formatted)) {
        result.stage = Disassembled::FormatFailed;
        result.error = formatted;
        return result;
    }
    result.stage = Disassembled::Ok;
    result.length = instruction.length;
    return result;
}

bool Decoder::branchTarget(const uint8_t* bytes, size_t length, uint64_t address, uint64_t& target) const {
    ZydisDecoder decoder;
    if (!initDecoder(m_mode, decoder))
        return false;
    ZydisDecodedInstruction instruction;
    ZydisDecodedOperand operands[ZYDIS_MAX_OPERAND_COUNT];
    if (!ZYAN_SUCCESS(
            ZydisDecoderDecodeFull(&decoder, bytes, std::min(length, kMaxInstructionLength), &instruction, operands)))
        return false;
    if (!(instruction.attributes & ZYDIS_ATTRIB_IS_RELATIVE) || instruction.operand_count_visible < 1)
        return false;
    const ZydisDecodedOperand& operand = operands[0];
    if (operand.type != ZYDIS_OPERAND_TYPE_IMMEDIATE || !operand.imm.is_relative)
        return false;
    ZyanU64 absolute = 0;
    if (!ZYAN_SUCCESS(ZydisCalcAbsoluteAddress(&instruction, &operand, address, &absolute)))
        return false;
    target = absolute;
    return true;
}

} // namespace quarvel_x86
