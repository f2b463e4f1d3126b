#ifndef QUARVEL_API_LOCATED_FILE_H
#define QUARVEL_API_LOCATED_FILE_H

#include <quarvel/facades.h>

#include <string>

namespace quarvel_3_13 {

// A path a locator found.
class LocatedFile : public ILocatedFile {
public:
    explicit LocatedFile(std::string path) : m_path(std::move(path)) {}
    const char* getPath() const override { return m_path.c_str(); }

private:
    std::string m_path;
};

} // namespace quarvel_3_13

#endif
