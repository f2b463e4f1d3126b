#ifndef QUARVEL_EXCEPTION_H
#define QUARVEL_EXCEPTION_H

#include <quarvel/export.h>
#include <quarvel/types.h>

#include <exception>
#include <string>

QUARVEL_NAMESPACE_BEGIN

// Offered to callers that prefer exceptions; the library itself reports every
// failure through quarvel_error_t and never throws this.
class QUARVEL_API Exception : public std::exception {
public:
    Exception(quarvel_error_t code, const std::string& detail);
    ~Exception() override;

    quarvel_error_t getCode() const;
    std::string getDetail() const;
    // Always null: read the text through getDetail().
    const char* what() const noexcept override;

private:
    quarvel_error_t m_code;
    std::string m_detail;
    std::string m_reserved;
};

QUARVEL_NAMESPACE_END

#endif
