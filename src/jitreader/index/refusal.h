#ifndef QUARVEL_INDEX_REFUSAL_H
#define QUARVEL_INDEX_REFUSAL_H

// Refusals of the data manager: the reason goes to the caller and, with the
// ", at file: ..." tail, to the log. Every file of the index names the data
// manager as the place, as its log lines always have.

#include "support/log.h"
#include "support/result.h"

#include <sstream>
#include <string>

// ERROR line whose tail names the data manager, whichever index file logs it.
#define QV_INDEX_ERROR(expr) \
    QV_LOG_AT(log4cplus::ERROR_LOG_LEVEL, expr << ::quarvel::log::errorSuffix("jit_data_manager.cpp", __LINE__))

// Logs the message built by expr at error level and returns it as a refusal
// of the given kind (ErrorKind::badInput, ...) and code (4, 14).
#define QV_INDEX_REFUSE(kind, code, expr)                                \
    do {                                                                 \
        std::ostringstream qv_refusal_;                                  \
        qv_refusal_ << expr;                                             \
        QV_INDEX_ERROR(qv_refusal_.str());                               \
        return ::quarvel::index::refusal(kind, code, qv_refusal_.str()); \
    } while (0)

QUARVEL_NAMESPACE_BEGIN
namespace index {

inline Status refusal(ErrorKind kind, quarvel_error_t code, std::string message) {
    switch (kind) {
    case ErrorKind::notFound:
        return Status(Reason::notFound(std::move(message), code));
    case ErrorKind::badInput:
        return Status(Reason::badInput(std::move(message), code));
    default:
        return Status(Reason::internal(std::move(message), code));
    }
}

// An address or jit rva range printed as decimal start "-" decimal end.
struct IpRange {
    u64 start;
    u64 end;
};

inline std::ostream& operator<<(std::ostream& os, const IpRange& r) {
    return os << std::dec << r.start << "-" << r.end;
}

inline IpRange ipSpan(u64 start, u64 end) {
    return IpRange{start, end};
}

} // namespace index
QUARVEL_NAMESPACE_END

#endif
