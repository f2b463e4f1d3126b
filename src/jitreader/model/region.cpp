#include "model/region.h"

#include "model/jit_method.h"
#include "support/assertion.h"
#include "support/log.h"

#include <algorithm>
#include <iomanip>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

namespace {

struct HexRange {
    u64 start;
    u64 end;
};

std::ostream& operator<<(std::ostream& os, const HexRange& r) {
    const std::ios_base::fmtflags flags = os.flags();
    os << "0x" << std::hex << r.start << "-0x" << r.end;
    os.flags(flags);
    return os;
}

HexRange hexRange(u64 start, u64 length) {
    return HexRange{start, start + length};
}

} // namespace

Region::Region(u32 hostId, u32 processId, jit_rva_t startJitRva, u64 loadTime, u64 unloadTime,
               address_t startVirtualAddress, u32 length, IByteBuffer::Ptr content)
    : Region(hostId, processId, startJitRva, loadTime, unloadTime, startVirtualAddress, length, CodeView::of(content)) {
}

Region::Region(u32 hostId, u32 processId, jit_rva_t startJitRva, u64 loadTime, u64 unloadTime,
               address_t startVirtualAddress, u32 length, CodeView content)
    : m_hostId(hostId), m_processId(processId), m_length(length), m_startJitRva(startJitRva), m_loadTime(loadTime),
      m_unloadTime(unloadTime), m_startVirtualAddress(startVirtualAddress) {
    if (content)
        extras().content = std::move(content);
}

Region::Region(const Region& other)
    : ICodeRegion(), m_hostId(other.m_hostId), m_processId(other.m_processId), m_length(other.m_length),
      m_startJitRva(other.m_startJitRva), m_loadTime(other.m_loadTime), m_unloadTime(other.m_unloadTime),
      m_startVirtualAddress(other.m_startVirtualAddress) {
    const Tree* const otherTree = other.findTree();
    std::unique_ptr<Tree> copy(otherTree ? new Tree(*otherTree) : nullptr);
    if (const Extras* const more = other.findExtras()) {
        std::unique_ptr<Extras> mine(new Extras());
        mine->content = more->content;
        mine->tree = std::move(copy);
        m_more = reinterpret_cast<uintptr_t>(mine.release());
    } else if (copy) {
        m_more = reinterpret_cast<uintptr_t>(copy.release()) | kTreeOnly;
    }
}

Region::~Region() {
    if (m_more & kTreeOnly)
        delete reinterpret_cast<Tree*>(m_more & ~kTreeOnly);
    else
        delete reinterpret_cast<Extras*>(m_more);
}

Region::Tree::Tree(const Tree& other)
    : inlinedRegions(other.inlinedRegions), inlinedMethods(other.inlinedMethods),
      markup(other.markup ? new Markup(*other.markup) : nullptr) {}

const Region::Tree* Region::findTree() const {
    if (m_more & kTreeOnly)
        return reinterpret_cast<const Tree*>(m_more & ~kTreeOnly);
    const Extras* const more = findExtras();
    return more ? more->tree.get() : nullptr;
}

Region::Extras& Region::extras() {
    if (!m_more || (m_more & kTreeOnly)) {
        std::unique_ptr<Extras> more(new Extras());
        more->tree.reset(reinterpret_cast<Tree*>(m_more & ~kTreeOnly));
        m_more = reinterpret_cast<uintptr_t>(more.release());
    }
    return *reinterpret_cast<Extras*>(m_more);
}

Region::Tree& Region::tree() {
    if (!m_more) {
        m_more = reinterpret_cast<uintptr_t>(new Tree()) | kTreeOnly;
    } else if (!(m_more & kTreeOnly)) {
        Extras& more = *reinterpret_cast<Extras*>(m_more);
        if (!more.tree)
            more.tree.reset(new Tree());
        return *more.tree;
    }
    return *reinterpret_cast<Tree*>(m_more & ~kTreeOnly);
}

IByteBuffer::Ptr Region::content() const {
    return CodeBytes::view(codeView());
}

const CodeView& Region::codeView() const {
    static const CodeView none;
    const Extras* const more = findExtras();
    return more ? more->content : none;
}

void Region::setContent(const IByteBuffer::Ptr& content) {
    setContent(CodeView::of(content));
}

void Region::setContent(CodeView content) {
    if (content || findExtras())
        extras().content = std::move(content);
}

const Region::InlinedRegions& Region::inlinedRegions() const {
    static const InlinedRegions none;
    const Tree* const t = findTree();
    return t ? t->inlinedRegions : none;
}

const Region::InlinedMethods& Region::inlinedMethods() const {
    static const InlinedMethods none;
    const Tree* const t = findTree();
    return t ? t->inlinedMethods : none;
}

const Region::Markup& Region::markup() const {
    static const Markup none;
    const Tree* const t = findTree();
    return t && t->markup ? *t->markup : none;
}

Region::Markup& Region::markupToChange() {
    Tree& t = tree();
    if (!t.markup)
        t.markup.reset(new Markup());
    return *t.markup;
}

void Region::takeBytesFrom(const Region& patched) {
    setContent(patched.codeView());
    if (!patched.markup().empty())
        markupToChange() = patched.markup();
    else if (findTree())
        tree().markup.reset();
}

void Region::addChildRegion(const Ptr& child, const MethodPtr& method) {
    Tree& t = tree();
    t.inlinedRegions.push_back(child);
    t.inlinedMethods.push_back(method);
}

int Region::getInlineIndex(u64 jitRva) const {
    for (size_t i = 0; i < inlinedRegions().size(); ++i) {
        const Region& child = *inlinedRegions()[i];
        if (child.m_startJitRva <= jitRva && jitRva - child.m_startJitRva < child.m_length)
            return static_cast<int>(i);
    }
    return -1;
}

Region::Ptr Region::getInlinedRegion(u64 jitRva) const {
    const int index = getInlineIndex(jitRva);
    return index < 0 ? Ptr() : inlinedRegions()[static_cast<size_t>(index)];
}

Region::MethodPtr Region::getInlinedMethod(u64 jitRva) const {
    const int index = getInlineIndex(jitRva);
    if (index < 0 || static_cast<size_t>(index) >= inlinedMethods().size())
        return MethodPtr();
    return inlinedMethods()[static_cast<size_t>(index)];
}

boost::intrusive_ptr<ISymbol> Region::getInlinedSymbol(u64 jitRva) const {
    return boost::intrusive_ptr<ISymbol>(getInlinedMethod(jitRva).get());
}

ICodeRegion::Ptr Region::getInlinedCodeRegion(u64 jitRva) const {
    return ICodeRegion::Ptr(getInlinedRegion(jitRva).get());
}

generic_iterator_t<ICodeRegion::Ptr> Region::getInlinedRegions() const {
    // The iterator keeps this region (and so its child vector) alive.
    return generic_iterator_t<ICodeRegion::Ptr>(inlinedRegions().begin(), inlinedRegions().end(),
                                                Ptr(const_cast<Region*>(this)));
}

quarvel_error_t Region::normalizeInlineJitRvaRanges(jit_rva_t parentJitRva, address_t parentStart) {
    QV_CHECK(inlinedRegions().size() == inlinedMethods().size(), return meNotFound);
    const u64 delta = parentJitRva - parentStart; // wraps on purpose
    for (size_t i = 0; i < inlinedRegions().size(); ++i)
        settleInlineAt(i, delta);
    return meSuccess;
}

void Region::settleInline(size_t i) {
    QV_CHECK(i < inlinedRegions().size() && i < inlinedMethods().size(), return );
    settleInlineAt(i, m_startJitRva - m_startVirtualAddress); // wraps on purpose
}

void Region::settleInlineAt(size_t i, u64 delta) {
    Region& child = *inlinedRegions()[i];
    child.m_startJitRva = child.m_startVirtualAddress + delta;
    const MethodPtr& method = inlinedMethods()[i];
    if (method) {
        method->setStartJitRva(child.m_startJitRva);
        method->normalizeLineNumberInfoJitRvaRanges(child.m_startJitRva);
    }
    QV_TRACE("  Set jit rva range = " << hexRange(child.m_startJitRva, child.m_length) << " for ip range = "
                                      << hexRange(child.m_startVirtualAddress, child.m_length) << ".");
}

quarvel_error_t Region::addBytesUpdate(address_t codeAddr, u32 codeLen, const IByteBuffer::Ptr& content,
                                       quarvel_segment_type_t segType, const std::string& text) {
    QV_TRACE("ENTER: Region::addBytesUpdate");
    struct Exit {
        ~Exit() { QV_TRACE("EXIT:  Region::addBytesUpdate"); }
    } exitLog;

    if (codeAddr == 0 || codeLen == 0) {
        QV_ERROR("Couldn't update because the input range is invalid:"
                 << " codeAddr = " << codeAddr << ", codeLen = " << codeLen);
        return meNotFound;
    }
    if (!content) {
        QV_ERROR("Couldn't update because the input content is empty");
        return meNotFound;
    }
    if (segType < quarvel_segment_code || segType > quarvel_segment_unchanged) {
        QV_ERROR("Couldn't update because the input segment type =" << segType << " is not recognized");
        return meNotFound;
    }
    const CodeView& regionContent = codeView();
    QV_CHECK(regionContent, return meNotFound);

    const Range update(codeAddr, codeLen);
    // Overflow-safe containment: the update must lie inside the region.
    if (codeAddr < m_startVirtualAddress || codeAddr - m_startVirtualAddress > m_length ||
        codeLen > m_length - (codeAddr - m_startVirtualAddress)) {
        QV_ERROR("Couldn't accept update (ip range = " << hexRange(codeAddr, codeLen)
                                                       << ") because it overlaps parent's ip range "
                                                       << hexRange(m_startVirtualAddress, m_length));
        return meNotFound;
    }

    Markup& markup = markupToChange();
    auto existing = markup.find(update);
    if (existing == markup.end()) {
        markup.emplace(update, RangeProps{segType, text});
    } else if (existing->first == update) {
        if (segType == quarvel_segment_unchanged) {
            segType = existing->second.segType;
        } else if (segType != existing->second.segType) {
            QV_INFO("Changed a type of markup range (ip range = " << hexRange(codeAddr, codeLen) << ") from "
                                                                  << existing->second.segType << "  to " << segType);
            existing->second.segType = segType;
        }
    } else {
        QV_ERROR("Couldn't accept update (ip range = " << hexRange(codeAddr, codeLen)
                                                       << ") because it overlaps an existing markup range "
                                                       << hexRange(existing->first.start, existing->first.length)
                                                       << " with segType = " << existing->second.segType);
        return meNotFound;
    }

    const unsigned oldSize = regionContent.length;
    const u64 offset = codeAddr - m_startVirtualAddress;

    // Padding carries no code: the range becomes one-byte no-operations. Only
    // the part the code copy holds is filled: the range's length comes from
    // the file and may claim 4 GiB.
    std::vector<unsigned char> padding;
    const unsigned char* updateBytes = content->data();
    unsigned updateSize = content->size();
    if (segType == quarvel_segment_padding) {
        const u64 held = offset < oldSize ? std::min<u64>(codeLen, oldSize - offset) : 0;
        padding.assign(static_cast<size_t>(held), 0x90);
        updateBytes = padding.data();
        updateSize = static_cast<unsigned>(held);
    }

    std::vector<unsigned char> bytes(oldSize, 0);
    const unsigned char* old = regionContent.bytes;
    // Old head, update bytes, old tail; each clipped to the buffer so that a
    // short code copy or short update content can never be over-read.
    for (u64 i = 0; i < oldSize; ++i) {
        if (i >= offset && i < offset + codeLen) {
            const u64 k = i - offset;
            bytes[i] = k < updateSize ? updateBytes[k] : (old ? old[i] : 0);
        } else if (old) {
            bytes[i] = old[i];
        }
    }
    IByteBuffer::Ptr replaced = IByteBuffer::create();
    replaced->assign(bytes.data(), static_cast<unsigned>(bytes.size()));
    setContent(replaced);

    QV_INFO("Updated code region (ip range = " << hexRange(codeAddr, codeLen) << ")"
                                               << " successfully");
    return meSuccess;
}

void Region::dumpInlines(std::ostringstream& os, u32 indent) const {
    QV_CHECK(inlinedRegions().size() == inlinedMethods().size(), return );
    for (size_t i = 0; i < inlinedRegions().size(); ++i) {
        const Region& child = *inlinedRegions()[i];
        const MethodPtr& method = inlinedMethods()[i];
        os << "\n"
           << std::setw(static_cast<int>(indent)) << std::setfill(' ') << "#" << std::dec << i << " "
           << (method ? method->getMethodName() : "") << " (method id = 0x" << std::hex
           << (method ? method->getRawMethodId() : 0u)
           << ", ip range = " << hexRange(child.m_startVirtualAddress, child.m_length) << ")" << std::dec;
        child.dumpInlines(os, indent + 4);
    }
}

QUARVEL_NAMESPACE_END
