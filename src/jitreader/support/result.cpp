#include "support/result.h"

#include <sstream>

QUARVEL_NAMESPACE_BEGIN

const char* errorKindName(ErrorKind kind) {
    switch (kind) {
    case ErrorKind::notFound:
        return "not found";
    case ErrorKind::badInput:
        return "bad input";
    case ErrorKind::internal:
        return "internal";
    }
    return "internal";
}

std::string Reason::text() const {
    std::ostringstream os;
    const char* sep = "";
    if (!file.empty()) {
        os << file;
        sep = ": ";
    }
    if (offset != kNoOffset) {
        os << sep << "offset " << offset;
        sep = ": ";
    }
    if (!field.empty()) {
        os << sep << field;
        sep = ": ";
    }
    os << sep << message;
    return os.str();
}

const Reason& Status::noReason() {
    static const Reason none;
    return none;
}

QUARVEL_NAMESPACE_END
