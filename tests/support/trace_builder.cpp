#include "trace_builder.h"

#include <boost/filesystem.hpp>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace quarvel_test {

namespace jt = quarvel_3_13::jittrace;

TraceBuilder& TraceBuilder::append(const std::vector<uint8_t>& record) {
    m_starts.push_back(m_bytes.size());
    m_bytes.insert(m_bytes.end(), record.begin(), record.end());
    return *this;
}

TraceBuilder& TraceBuilder::magic(uint32_t value) { return append(jt::frameValue(quarvel_jt_Magic, value)); }
TraceBuilder& TraceBuilder::collector(uint32_t type) { return append(jt::frameValue(quarvel_jt_CollectorType, type)); }
TraceBuilder& TraceBuilder::load(int version, const TraceMethodLoad& load, bool is64) {
    return append(jt::frameSized(jt::methodLoadType(version, is64), jt::encodeMethodLoad(load, version)));
}
TraceBuilder& TraceBuilder::update(const TraceMethodLoad& update) {
    return append(jt::frameSized(quarvel_jt_FunctionUpdate, jt::encodeMethodLoad(update, 3)));
}
TraceBuilder& TraceBuilder::inlineLoad(const TraceInlineLoad& load, bool is64) {
    return append(jt::frameSized(is64 ? quarvel_jt_FunctionInlineLoad64 : quarvel_jt_FunctionInlineLoad32,
                                 jt::encodeInlineLoad(load)));
}
TraceBuilder& TraceBuilder::updateV2(const TraceUpdateV2& update) {
    return append(jt::frameSized(quarvel_jt_FunctionUpdate_v2, jt::encodeUpdateV2(update)));
}
TraceBuilder& TraceBuilder::runtimeInfo(const TraceRuntimeInfo& info) {
    return append(jt::frameSized(quarvel_jt_ManagedRuntimeInfo, jt::encodeRuntimeInfo(info)));
}
TraceBuilder& TraceBuilder::sized(uint32_t type, const std::vector<uint8_t>& body) {
    return append(jt::frameSized(type, body));
}
TraceBuilder& TraceBuilder::value(uint32_t type, uint32_t value) { return append(jt::frameValue(type, value)); }
TraceBuilder& TraceBuilder::raw(const std::vector<uint8_t>& bytes) { return append(bytes); }

std::string TraceBuilder::writeTo(const std::string& path, size_t length) const {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    const size_t n = std::min(length, m_bytes.size());
    out.write(reinterpret_cast<const char*>(m_bytes.data()), static_cast<std::streamsize>(n));
    if (!out)
        throw std::runtime_error("cannot write " + path);
    return path;
}

TempDir::TempDir() {
    const char* base = std::getenv("QUARVEL_TEST_TMP");
    const boost::filesystem::path root = base && *base ? boost::filesystem::path(base)
                                                       : boost::filesystem::temp_directory_path();
    boost::filesystem::create_directories(root);
    m_path = (root / boost::filesystem::unique_path("quarvel-%%%%-%%%%-%%%%")).string();
    boost::filesystem::create_directories(m_path);
}

TempDir::~TempDir() {
    boost::system::error_code ec;
    boost::filesystem::remove_all(m_path, ec);
}

TraceMethodLoad makeLoad(uint32_t methodId, uint64_t loadTime, uint64_t address, uint32_t size,
                         const std::string& name, const std::string& className) {
    TraceMethodLoad load;
    load.hashKey = methodId;
    load.methodId = methodId;
    load.loadTime = loadTime;
    load.regions.push_back(TraceCodeRegion{address, size, std::vector<uint8_t>(size, 0xCC)});
    load.tail.moduleName = "app.dll";
    load.tail.methodName = name;
    load.tail.className = className;
    load.tail.sourceFile = "App.java";
    return load;
}

TraceInlineLoad makeInline(uint32_t methodId, uint32_t parentId, uint64_t loadTime, uint64_t address, uint32_t size,
                           const std::string& name) {
    TraceInlineLoad load;
    load.methodId = methodId;
    load.parentId = parentId;
    load.loadTime = loadTime;
    load.region = TraceCodeRegion{address, size, std::vector<uint8_t>(size, 0x90)};
    load.tail.moduleName = "app.dll";
    load.tail.methodName = name;
    load.tail.className = "Klass";
    return load;
}

} // namespace quarvel_test
