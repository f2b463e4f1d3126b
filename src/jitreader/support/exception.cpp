#include <quarvel/exception.h>

QUARVEL_NAMESPACE_BEGIN

Exception::Exception(quarvel_error_t code, const std::string& detail) : m_code(code), m_detail(detail) {}

Exception::~Exception() = default;

quarvel_error_t Exception::getCode() const {
    return m_code;
}

std::string Exception::getDetail() const {
    return m_detail;
}

const char* Exception::what() const noexcept {
    return nullptr;
}

QUARVEL_NAMESPACE_END
