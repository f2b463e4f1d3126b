#include "index/code_patcher.h"

#include "index/refusal.h"
#include "support/log.h"

#include <quarvel/byte_buffer.h>

#include <algorithm>
#include <vector>

QUARVEL_NAMESPACE_BEGIN

using index::IpRange;
using index::ipSpan;

bool CodePatcher::takePatchedCopies(const JitMethod& rawMethod, const JitRvaIndex& jitRvas) {
    if (rawMethod.regions().empty())
        return false;
    std::vector<Region*> stored;
    for (const Region::Ptr& region : rawMethod.regions()) {
        const RegionInfo* found = jitRvas.find(region->startJitRva());
        if (!found || found->startJitRva != region->startJitRva() || found->length != region->length() ||
            found->region == region.get() || found->region->addressRange() != region->addressRange() ||
            found->method->getRawMethodId() != rawMethod.getRawMethodId())
            return false;
        stored.push_back(found->region);
    }
    for (size_t i = 0; i < stored.size(); ++i) {
        const Region& patched = *rawMethod.regions()[i];
        if (patched.hasContent())
            stored[i]->takeBytesFrom(patched);
        QV_INFO("Updated code region (ip range = " << ipSpan(patched.startAddress(), patched.endAddress())
                                                   << ") from method " << rawMethod.getRawMethodId()
                                                   << ", name = " << rawMethod.getMethodName()
                                                   << ", load time = " << rawMethod.getLoadTime());
    }
    return true;
}

Status CodePatcher::patch(const Region& update, u32 methodId, Region& region, const JitMethod& method) {
    // Overflow-safe: [update start, update end) inside [region start, region end).
    const u64 offset = update.startAddress() - region.startAddress(); // the lookup: start <= update start
    if (offset > region.length() || update.length() > region.length() - offset)
        QV_INDEX_REFUSE(ErrorKind::badInput, meNotFound,
                        "Couldn't accept update (ip range = "
                            << ipSpan(update.startAddress(), update.startAddress() + update.length())
                            << ") because it overlaps parent's ip range "
                            << ipSpan(region.startAddress(), region.endAddress()));

    // Old head, update bytes, old tail, in an array of the code copy's size: a
    // short code copy or short update content is clipped so that nothing is
    // read or written past a buffer. A region without a code copy has no
    // bytes to patch; its length comes from the file and may claim 4 GiB, so
    // it never sizes an allocation.
    const CodeView& old = region.codeView();
    const unsigned char* oldBytes = old.bytes;
    const u64 size = oldBytes ? old.length : 0;
    std::vector<unsigned char> bytes(size, 0);
    if (oldBytes)
        std::copy(oldBytes, oldBytes + size, bytes.begin());
    const CodeView& patch = update.codeView();
    const unsigned char* patchBytes = patch.bytes;
    if (patchBytes && offset < size) {
        const u64 count =
            std::min<u64>({static_cast<u64>(update.length()), static_cast<u64>(patch.length), size - offset});
        std::copy(patchBytes, patchBytes + count, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    IByteBuffer::Ptr replaced = IByteBuffer::create();
    replaced->assign(bytes.data(), static_cast<unsigned>(bytes.size()));
    region.setContent(replaced);

    QV_INFO("Updated code region (ip range = " << ipSpan(region.startAddress(), region.endAddress()) << ") from method "
                                               << methodId << ", name = " << method.getMethodName()
                                               << ", load time = " << method.getLoadTime());
    return Status::success();
}

QUARVEL_NAMESPACE_END
