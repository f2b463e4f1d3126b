#ifndef QUARVEL_API_LOCATED_FILE_H
#define QUARVEL_API_LOCATED_FILE_H

#include <quarvel/facades.h>

#include <string>

QUARVEL_NAMESPACE_BEGIN

// A path a locator found.
class LocatedFile : public ILocatedFile {
public:
    explicit LocatedFile(std::string path) : m_path(std::move(path)) {}
    const char* getPath() const override { return m_path.c_str(); }

private:
    std::string m_path;
};

QUARVEL_NAMESPACE_END

#endif
