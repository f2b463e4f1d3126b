#ifndef QUARVEL_TESTS_JIT_DATA_MANAGER_TEST_HELPERS_H
#define QUARVEL_TESTS_JIT_DATA_MANAGER_TEST_HELPERS_H

// Methods and regions built directly in code, as the record decoders would
// hand them to the data manager.

#include "index/jit_data_manager.h"
#include "model/md5_hash_generator.h"
#include "model/module.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace dmtest {

using namespace quarvel;

const u32 kPid = 100;
const u32 kHost = 1;
const char* const kModulePath = "/app/code.jit";

struct RegionShape {
    u64 address;
    u32 length;
    u64 jitRva;
};

inline Region::Ptr makeRegion(const RegionShape& shape, u64 loadTime, u32 pid = kPid, u32 host = kHost,
                              unsigned char fill = 0xCC) {
    IByteBuffer::Ptr bytes = IByteBuffer::create();
    const std::vector<unsigned char> data(shape.length, fill);
    bytes->assign(data.data(), static_cast<unsigned>(data.size()));
    return Region::Ptr(new Region(host, pid, shape.jitRva, loadTime, 0, shape.address, shape.length, bytes));
}

// A method with its regions, module and ids (the id from the raw id, or from
// the names when the raw id is 0).
inline JitMethod::Ptr makeMethod(u32 rawId, u64 loadTime, const std::vector<RegionShape>& regions,
                                 const std::string& name = std::string(), u32 pid = kPid, u32 host = kHost,
                                 const std::string& modulePath = kModulePath) {
    JitMethod::Ptr method(new JitMethod());
    method->setRawMethodId(rawId);
    method->setLoadTime(loadTime);
    method->info()->setModule(IModule::Ptr(new Module(modulePath, meSuccess, quarvel_arch_vx64)));
    method->info()->setMethodName(name.empty() ? "m" + std::to_string(rawId) : name);
    for (const RegionShape& shape : regions)
        method->addCodeRegion(makeRegion(shape, loadTime, pid, host));
    if (!regions.empty())
        method->setStartJitRva(regions.front().jitRva);
    method->info()->setMethodId(Md5HashGenerator::getHashValue(rawId, method));
    return method;
}

// An inline: one region without a jit rva, and its parent's id.
inline JitMethod::Ptr makeInlineMethod(u32 rawId, u32 rawParentId, u64 loadTime, u64 address, u32 length,
                                       const std::string& name = std::string()) {
    JitMethod::Ptr method = makeMethod(rawId, loadTime, {{address, length, 0}}, name);
    method->setRawParentId(rawParentId);
    if (rawParentId)
        method->info()->setParentId(Md5HashGenerator::getHashValue(rawParentId, method));
    return method;
}

// Line tables as a decoder keys them: offsets from the method's first byte.
inline void addNativeToSource(const JitMethod::Ptr& method, u32 totalLength,
                              const std::vector<quarvel_line_number_entry>& entries) {
    ASSERT_TRUE(method->addLineNumberInfo(quarvel_line_info_native_to_source, entries, Range(0, totalLength)));
}

inline unsigned lineAt(const JitMethod::Ptr& method, u64 jitRva) {
    const ISourceLocation::Ptr location = method->getSourceLocation(jitRva);
    return location ? location->getLine() : 0;
}

// The raw id of the method that holds address at timestamp, 0 when none.
inline u32 ownerAt(const JitDataManager& manager, u64 address, u64 timestamp, u32 pid = kPid, u32 host = kHost) {
    JitMethod::Ptr method;
    u64 jitRva = 0;
    return manager.resolveJitPoint(address, timestamp, pid, host, method, jitRva) == meSuccess
               ? method->getRawMethodId()
               : 0;
}

} // namespace dmtest

#endif
