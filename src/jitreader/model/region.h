#ifndef QUARVEL_MODEL_REGION_H
#define QUARVEL_MODEL_REGION_H

#include "model/range.h"
#include "model/ref_list.h"

#include "support/block_heap.h"
#include "support/code_bytes.h"
#include "support/object_pool.h"

#include <quarvel/symbol.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

class JitMethod;

// One contiguous piece of jitted code of one method in one process, with the
// methods inlined into it (child regions paired with their methods) and the
// byte ranges that method updates rewrote.
class Region : public ICodeRegion, public Pooled<Region> {
public:
    typedef boost::intrusive_ptr<Region> Ptr;
    typedef boost::intrusive_ptr<JitMethod> MethodPtr;

    struct RangeProps {
        quarvel_segment_type_t segType;
        std::string text;
    };
    typedef std::map<Range, RangeProps, Range::Comparator> Markup;

    Region(u32 hostId, u32 processId, jit_rva_t startJitRva, u64 loadTime, u64 unloadTime,
           address_t startVirtualAddress, u32 length, IByteBuffer::Ptr content);
    Region(u32 hostId, u32 processId, jit_rva_t startJitRva, u64 loadTime, u64 unloadTime,
           address_t startVirtualAddress, u32 length, CodeView content);
    // Shares children, their methods and the code bytes with the source.
    Region(const Region& other);
    Region& operator=(const Region&) = delete;
    ~Region() override;

    // ICodeRegion
    u64 getStartJitRva() const override { return m_startJitRva; }
    u64 getLoadTime() const override { return m_loadTime; }
    u64 getUnloadTime() const override { return m_unloadTime; }
    u64 getStartVirtualAddress() const override { return m_startVirtualAddress; }
    unsigned getLength() const override { return m_length; }
    unsigned getProcessId() const override { return m_processId; }
    unsigned getHostID() const override { return m_hostId; }
    IByteBuffer::Ptr getBytes() const override { return content(); }
    boost::intrusive_ptr<ISymbol> getInlinedSymbol(u64 jitRva) const override;
    ICodeRegion::Ptr getInlinedCodeRegion(u64 jitRva) const override;

    // Internal accessors.
    u32 hostId() const { return m_hostId; }
    u32 processId() const { return m_processId; }
    jit_rva_t startJitRva() const { return m_startJitRva; }
    u64 loadTime() const { return m_loadTime; }
    u64 unloadTime() const { return m_unloadTime; }
    address_t startAddress() const { return m_startVirtualAddress; }
    address_t endAddress() const { return m_startVirtualAddress + m_length; }
    u32 length() const { return m_length; }
    Range addressRange() const { return Range(m_startVirtualAddress, m_length); }
    Range jitRvaRange() const { return Range(m_startJitRva, m_length); }
    // The code bytes, as a buffer made on each call (null when none are
    // kept): a region holds them as a view, and most are never asked for.
    IByteBuffer::Ptr content() const;
    bool hasContent() const { return static_cast<bool>(codeView()); }
    const CodeView& codeView() const;
    const Markup& markup() const;

    void setStartJitRva(jit_rva_t rva) { m_startJitRva = rva; }
    void setUnloadTime(u64 time) { m_unloadTime = time; }
    // The buffer is kept as it is: nobody may change it after.
    void setContent(const IByteBuffer::Ptr& content);
    void setContent(CodeView content);
    // Takes the code bytes and update markup of a patched copy of this region.
    void takeBytesFrom(const Region& patched);

    // Inline tree. Children are searched by jit rva, in attachment order.
    void addChildRegion(const Ptr& child, const MethodPtr& method);
    int getInlineIndex(u64 jitRva) const;
    Ptr getInlinedRegion(u64 jitRva) const;
    MethodPtr getInlinedMethod(u64 jitRva) const;
    generic_iterator_t<ICodeRegion::Ptr> getInlinedRegions() const;
    // Most regions with inlines have one or two: a list holds one in place.
    typedef RefList<Region> InlinedRegions;
    typedef RefList<JitMethod> InlinedMethods;
    const InlinedRegions& inlinedRegions() const;
    const InlinedMethods& inlinedMethods() const;

    // Gives each direct child (and its method and line tables) the jit rvas of
    // its addresses, relative to this region's settled jit rva.
    quarvel_error_t normalizeInlineJitRvaRanges(jit_rva_t parentJitRva, address_t parentStart);
    // The same for direct child i alone, relative to this region's own jit rva.
    void settleInline(size_t i);

    // Rewrites [codeAddr, codeAddr + codeLen) of the code copy and records the range.
    quarvel_error_t addBytesUpdate(address_t codeAddr, u32 codeLen, const IByteBuffer::Ptr& content,
                                   quarvel_segment_type_t segType, const std::string& text);

    // The inline tree below this region, one line per child, indented.
    void dumpInlines(std::ostringstream& os, u32 indent) const;

private:
    void settleInlineAt(size_t i, u64 delta);

    // The 32-bit fields first: the first fills the base's tail padding, and
    // the three make a region 64 bytes with the code bytes kept aside.
    u32 m_hostId;
    u32 m_processId;
    u32 m_length;
    jit_rva_t m_startJitRva;
    u64 m_loadTime;
    u64 m_unloadTime;
    address_t m_startVirtualAddress;
    // What few regions have gets made on first use: code bytes (kept only
    // when the reader is asked to), and, fewer still, inlines and patched
    // ranges. A region without either is 64 bytes. One with bytes points to
    // Extras, which holds the tree too once there is one; one with a tree
    // and no bytes (any with inlines in a mode 2 read) points to the tree
    // itself, with the pointer's low bit set.
    struct Tree {
        InlinedRegions inlinedRegions;
        InlinedMethods inlinedMethods;
        // Patched ranges, fewer still: an empty map is 48 bytes, and a
        // quarter of the regions of a real trace have a tree.
        std::unique_ptr<Markup> markup;

        Tree() = default;
        Tree(const Tree& other);
        static void* operator new(size_t bytes) { return block_heap::allocate(bytes); }
        static void operator delete(void* block, size_t bytes) noexcept { block_heap::free(block, bytes); }
    };
    struct Extras {
        CodeView content; // not a buffer of its own: that took 64 bytes and an allocation more
        std::unique_ptr<Tree> tree;
        static void* operator new(size_t bytes) { return block_heap::allocate(bytes); }
        static void operator delete(void* block, size_t bytes) noexcept { block_heap::free(block, bytes); }
    };
    static constexpr uintptr_t kTreeOnly = 1;
    const Extras* findExtras() const {
        return (m_more & kTreeOnly) ? nullptr : reinterpret_cast<const Extras*>(m_more);
    }
    const Tree* findTree() const;
    Extras& extras();
    Tree& tree();
    Markup& markupToChange();
    uintptr_t m_more = 0; // owns an Extras, or a Tree when kTreeOnly is set; 0: neither
};

QUARVEL_NAMESPACE_END

#endif
