#ifndef QUARVEL_INGEST_CLASS_NAME_CACHE_H
#define QUARVEL_INGEST_CLASS_NAME_CACHE_H

#include <quarvel/namespace.h>

#include <string>
#include <unordered_map>

QUARVEL_NAMESPACE_BEGIN

// Class names as methods store them ("Lpkg/Foo;" -> "pkg::Foo"). The common
// Java descriptor is converted in one pass every time: that reads bytes in
// cache, where a table of every class's name misses the cache two or three
// times per lookup (18% of a 100k-load ingest). The other forms (hidden
// classes, other runtimes' names) take the parser, so they are converted once
// per reading pass: a class has many methods, each loaded on its own.
class ClassNameCache {
public:
    // The stored form of a class name as a trace writes it; java: in the
    // virtual machine's descriptor form. Valid until the next call.
    const std::string& stored(const std::string& written, bool java);

private:
    // The conversion of the forms the one-pass conversion does not take, uncached.
    static std::string convert(const std::string& written, bool java);

    // A pass over endless distinct names (generated classes) starts over
    // rather than keep them all a second time.
    static const size_t kMaxNames = 1 << 16;

    std::unordered_map<std::string, std::string> m_names[2]; // [java]
    std::string m_converted;
};

QUARVEL_NAMESPACE_END

#endif
