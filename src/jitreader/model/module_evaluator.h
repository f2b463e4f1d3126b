#ifndef QUARVEL_MODEL_MODULE_EVALUATOR_H
#define QUARVEL_MODEL_MODULE_EVALUATOR_H

#include <quarvel/dotnet.h>

#include <string>

QUARVEL_NAMESPACE_BEGIN

// meSuccess when the path names precompiled or non-file code (an assembly of
// the global assembly cache, a native image, the Dalvik code cache, an
// anonymous huge-page mapping), meNotFound otherwise. Note the sense:
// success means "is such a module".
quarvel_error_t isNativeImage(const std::string& path);

class ModuleEvaluator : public IModuleEvaluator {
public:
    // A null path is kept as an empty one.
    explicit ModuleEvaluator(const char* path) : m_path(path ? path : "") {}

    quarvel_error_t isNativeImage() const override;

private:
    std::string m_path;
};

QUARVEL_NAMESPACE_END

#endif
