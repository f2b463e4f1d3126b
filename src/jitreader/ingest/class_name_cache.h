#ifndef QUARVEL_INGEST_CLASS_NAME_CACHE_H
#define QUARVEL_INGEST_CLASS_NAME_CACHE_H

#include <quarvel/namespace.h>

#include <string>
#include <unordered_map>

QUARVEL_NAMESPACE_BEGIN

// Class names as methods store them ("Lpkg/Foo;" -> "pkg::Foo"), converted
// once per reading pass: a class has many methods, each loaded on its own.
class ClassNameCache {
public:
    // The stored form of a class name as a trace writes it; java: in the
    // virtual machine's descriptor form. Valid until the next call.
    const std::string& stored(const std::string& written, bool java);

private:
    // The conversion itself, uncached.
    static std::string convert(const std::string& written, bool java);

    // A pass over endless distinct names (generated classes) starts over
    // rather than keep them all a second time.
    static const size_t kMaxNames = 1 << 16;

    std::unordered_map<std::string, std::string> m_names[2]; // [java]
};

QUARVEL_NAMESPACE_END

#endif
