#ifndef QUARVEL_TESTS_API_FIXTURE_H
#define QUARVEL_TESTS_API_FIXTURE_H

// The methods the API tests write (with the fixture library's trace builder)
// and the small helpers a caller of the library needs. Only public headers.

#include "path_list.h"
#include "sequence.h"
#include "temp_dir.h"
#include "trace_builder.h"

#include <quarvel/jitreader.h>
#include <quarvel/jittrace_writer.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace api_test {

using namespace quarvel;
namespace stdfs = std::filesystem;

using quarvel_test::itemsOf;
using quarvel_test::TempDir;
using quarvel_test::TraceBuilder;

// The fixture library's load and inline, as a Java agent of a 32-bit process writes them.
inline TraceMethodLoad method(uint32_t id, uint64_t time, uint64_t address, uint32_t size, const std::string& name,
                              const std::string& module = "app.jar", uint16_t arch = quarvel_arch_vx32) {
    TraceMethodLoad l = quarvel_test::makeLoad(id, time, address, size, name, "com.acme.Worker");
    l.tail.moduleName = module;
    l.tail.moduleArch = arch;
    l.tail.sourceFile = "Worker.java";
    l.tail.language = quarvel_language_java;
    return l;
}

inline TraceInlineLoad inlined(uint32_t id, uint32_t parent, uint64_t time, uint64_t address, uint32_t size,
                               const std::string& name) {
    TraceInlineLoad l = quarvel_test::makeInline(id, parent, time, address, size, name);
    l.tail.moduleName = "app.jar";
    l.tail.moduleArch = quarvel_arch_vx32;
    return l;
}

typedef quarvel_test::PathList Paths;

inline IJitLoader::Ptr makeLoader(Paths paths) {
    return IJitLoader::create(paths.it());
}

inline ISymbolResolver::Ptr makeResolver(Paths paths) {
    ISymbolFileLocator::Ptr none;
    return ISymbolResolver::create(paths.it(), none);
}

inline IJitProcesses::Ptr makeProcesses(Paths paths) {
    return IJitProcesses::create(paths.it());
}

// The loader's answer for an address of a process of a host (by name) at a time.
inline quarvel_error_t resolve(const IJitLoader::Ptr& loader, const char* host, unsigned pid, u64 time, u64 address,
                               u64* rva = nullptr) {
    unsigned hostId = 0;
    loader->getHostIdByName(host, &hostId);
    u64 local = 0;
    IModule::Ptr module;
    return loader->resolveJitPoint(time, address, pid, hostId, rva ? rva : &local, module);
}

// The region of symbol that holds jitRva.
inline ICodeRegion::Ptr regionAt(const ISymbol::Ptr& symbol, u64 jitRva) {
    for (const ICodeRegion::Ptr& r : itemsOf(symbol->getRegions()))
        if (r->getStartJitRva() <= jitRva && jitRva - r->getStartJitRva() < r->getLength())
            return r;
    return ICodeRegion::Ptr();
}

} // namespace api_test

#endif
