#ifndef QUARVEL_MODEL_MODULE_H
#define QUARVEL_MODEL_MODULE_H

#include <quarvel/symbol.h>

#include <string>

QUARVEL_NAMESPACE_BEGIN

class Module : public IModule {
public:
    typedef boost::intrusive_ptr<Module> Ptr;

    // An empty path becomes "[Dynamic code]".
    Module(const std::string& path, quarvel_error_t status, quarvel_arch arch);

    const char* getFilePath() const override { return m_filePath.c_str(); }
    quarvel_error_t isBogus() const override { return m_status; }
    quarvel_arch getArchitecture() const override { return m_architecture; }

    const std::string& filePath() const { return m_filePath; }

private:
    std::string m_filePath;
    quarvel_error_t m_status;
    quarvel_arch m_architecture;
};

extern const char* const kDynamicCodeModule;      // "[Dynamic code]"
extern const char* const kCompiledJavaCodeModule; // "[Compiled Java code]"

QUARVEL_NAMESPACE_END

#endif
