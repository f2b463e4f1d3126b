#include "model/module_evaluator.h"

QUARVEL_NAMESPACE_BEGIN

quarvel_error_t isNativeImage(const std::string& path) {
    // Substring tests, case-sensitive: Windows cache paths and Linux memory-map names.
    static const char* const kMarks[] = {"assembly\\GAC", "assembly\\NativeImages", "dalvik-jit-code-cache",
                                         "anon_hugepage"};
    for (const char* mark : kMarks)
        if (path.find(mark) != std::string::npos)
            return meSuccess;
    return meNotFound;
}

quarvel_error_t ModuleEvaluator::isNativeImage() const {
    return quarvel::isNativeImage(m_path);
}

QUARVEL_NAMESPACE_END
