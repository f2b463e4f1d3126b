#include "ingest/runtime_code_builder.h"

#include "ingest/jit_file_reader.h"
#include "model/module.h"
#include "model/source_file.h"
#include "support/code_bytes.h"
#include "support/log.h"
#include "support/mix.h"

#include <limits>
#include <sstream>
#include <utility>

QUARVEL_NAMESPACE_BEGIN

namespace {

// The identity of a raw id of a file, without hashing text: the file's jit
// rva base is unique in its set and the raw id in its file, so no two loads
// of any two files share one. The mixed half spreads ids over hash tables.
BaseMethodId identityOf(jit_rva_t fileJitRvaBase, u64 rawId) {
    return BaseMethodId(mix64(rawId ^ mix64(fileJitRvaBase)), fileJitRvaBase);
}

CodeView contentOf(const RuntimeCode& code, u32 size) {
    if (code.bytesKeeper)
        return CodeView{code.bytesKeeper, code.bytes, size};
    return CodeView::copyOf(code.bytes, size);
}

} // namespace

quarvel_error_t refuseUnopenedFile(const RuntimeFileContext& file, const char* kind, Reason reason,
                                   JitReadStats& stats) {
    reason.inFile(file.path);
    QV_ERROR("Couldn't read " << kind << " " << file.path << ": " << reason.text());
    stats.failedFiles = 1;
    stats.addRefusal(reason);
    return reason.code;
}

RuntimeCodeBuilder::RuntimeCodeBuilder(const RuntimeFileContext& file, ModuleCache& modules)
    : m_file(file), m_modules(modules), m_module(modules.get(kDynamicCodeModule, meSuccess, file.arch)),
      m_nextJitRva(file.jitRvaBase) {
    const jit_rva_t top = std::numeric_limits<jit_rva_t>::max();
    const u64 stride = JitFileReader::kJitRvaStride;
    m_jitRvaLimit = file.jitRvaBase > top - stride ? top : file.jitRvaBase + stride;
}

std::string RuntimeCodeBuilder::whyUnplaceable(u64 address, u64 size) {
    if (size == 0)
        return "code of 0 bytes holds nothing to resolve";
    if (size > std::numeric_limits<u32>::max())
        return "code of " + std::to_string(size) + " bytes is larger than a code region can be (4 GiB - 1)";
    if (address == 0)
        return "code at address 0";
    if (address > std::numeric_limits<u64>::max() - size)
        return "code of " + std::to_string(size) + " bytes at " + std::to_string(address) +
               " runs past the end of the address space";
    return std::string();
}

bool RuntimeCodeBuilder::takeJitRvas(u64 size, jit_rva_t& jitRva, Reason& why) {
    if (m_jitRvaLimit - m_nextJitRva < size) {
        std::ostringstream message;
        message << "the file's jit rva range [" << m_file.jitRvaBase << ", " << m_jitRvaLimit
                << ") cannot hold code of " << size << " bytes at " << m_nextJitRva;
        why = Reason::badInput(message.str());
        return false;
    }
    jitRva = m_nextJitRva;
    m_nextJitRva += size;
    return true;
}

JitMethod::Ptr RuntimeCodeBuilder::build(const RuntimeCode& code, jit_rva_t jitRva) {
    const u32 size = static_cast<u32>(code.size);
    const u64 rawId = m_nextRawId++;
    JitMethod::Ptr method = adoptNew(new JitMethod());
    // Past 2^32 - 1 loads (no real file holds that many) the shown id wraps; the identity does not.
    method->setRawMethodId(static_cast<u32>(rawId) ? static_cast<u32>(rawId) : 1);
    method->setLoadTime(code.loadTime);
    method->setStartJitRva(jitRva);
    const bool keepBytes = code.bytes && m_file.keepCodeBytes();
    CodeView content = keepBytes ? contentOf(code, size) : CodeView();
    method->addCodeRegion(adoptNew(
        new Region(m_file.hostId, m_file.pid, jitRva, code.loadTime, 0, code.address, size, std::move(content))));
    BaseMethodInfo& info = *method->info();
    if (!code.className.empty()) {
        info.setClassName(std::string(code.className));
        info.setMethodName(std::string(code.name));
    } else if (!code.name.empty()) {
        info.setVerbatimName(std::string(code.name));
    }
    info.setModule(code.module ? code.module : m_module);
    info.setMethodToken(code.metadataToken);
    info.setMethodId(identityOf(m_file.jitRvaBase, rawId));
    if (!code.sourceFile.empty())
        info.shareSourceFile(m_modules.sourceFile(code.sourceFile, std::string_view(), 0, 0));
    if (!code.lines.empty() || !code.nativeToManaged.empty()) {
        LineTables::Span tables[LineTables::kTypes];
        tables[quarvel_line_info_native_to_source] = {code.lines.data(), code.lines.size()};
        tables[quarvel_line_info_native_to_managed] = {code.nativeToManaged.data(), code.nativeToManaged.size()};
        method->addLineNumberInfo(Range(0, size), tables);
    }
    return method;
}

JitMethod::Ptr RuntimeCodeBuilder::moved(const JitMethod& owner, const Region& region, u64 newAddress, u64 time,
                                         jit_rva_t jitRva) const {
    JitMethod::Ptr method = adoptNew(new JitMethod());
    method->setRawMethodId(owner.getRawMethodId());
    method->setLoadTime(time);
    method->setStartJitRva(jitRva);
    method->addCodeRegion(Region::Ptr(
        new Region(m_file.hostId, m_file.pid, jitRva, time, 0, newAddress, region.length(), region.codeView())));
    // Same identity: the registered method takes the new region over.
    *method->info() = *owner.info();
    // The owner's tables are keyed by jit rva; the newcomer's by offset from its first byte.
    const LineTables& lines = owner.getLineNumberInfo();
    const size_t found = lines.find(region.startJitRva());
    if (found != LineTables::npos && lines.range(found).start == region.startJitRva())
        method->setLineNumberInfo(LineTables::ofRange(lines, found, Range(0, lines.range(found).length)));
    return method;
}

QUARVEL_NAMESPACE_END
