#include "model/module.h"

QUARVEL_NAMESPACE_BEGIN

const char* const kDynamicCodeModule = "[Dynamic code]";
const char* const kCompiledJavaCodeModule = "[Compiled Java code]";

Module::Module(const std::string& path, quarvel_error_t status, quarvel_arch arch)
    : m_filePath(path.empty() ? kDynamicCodeModule : path), m_status(status), m_architecture(arch) {}

QUARVEL_NAMESPACE_END
