#ifndef QUARVEL_SUPPORT_RESULT_H
#define QUARVEL_SUPPORT_RESULT_H

// Why something was refused, carried to the caller instead of only to the
// log: Expected<T> holds a value or a Reason; Status is Expected without a
// value. The quarvel_error_t of each refusal travels with it, so the
// facades keep returning the codes their interfaces promise.

#include <quarvel/types.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <variant>

QUARVEL_NAMESPACE_BEGIN

enum class ErrorKind {
    notFound, // nothing matched: a missing file, region, parent
    badInput, // the file's content is wrong: a short body, a bad value
    internal  // a check of the library's own invariants failed
};

const char* errorKindName(ErrorKind kind);

struct Reason {
    static constexpr uint64_t kNoOffset = std::numeric_limits<uint64_t>::max();

    ErrorKind kind = ErrorKind::internal;
    quarvel_error_t code = meNotFound; // the status the public interfaces return for it
    std::string file;                  // path of the file, when one is involved
    uint64_t offset = kNoOffset;       // where in the file (a record's start, a field)
    std::string field;                 // the field or structure that was wrong
    std::string message;               // what was wrong, with the bad value

    // "<file>: offset <n>: <field>: <message>", leaving out what is not known.
    std::string text() const;

    static Reason notFound(std::string message, quarvel_error_t code = meNotFound) {
        return make(ErrorKind::notFound, code, std::move(message));
    }
    static Reason badInput(std::string message, quarvel_error_t code = meBadRecord) {
        return make(ErrorKind::badInput, code, std::move(message));
    }
    static Reason internal(std::string message, quarvel_error_t code = meNotFound) {
        return make(ErrorKind::internal, code, std::move(message));
    }

    // Fluent completion, as a reason travels up through the layers.
    Reason& inFile(std::string path) {
        if (file.empty())
            file = std::move(path);
        return *this;
    }
    Reason& at(uint64_t fileOffset) {
        if (offset == kNoOffset)
            offset = fileOffset;
        return *this;
    }
    Reason& ofField(std::string name) {
        if (field.empty())
            field = std::move(name);
        return *this;
    }

private:
    static Reason make(ErrorKind kind, quarvel_error_t code, std::string message) {
        Reason r;
        r.kind = kind;
        r.code = code;
        r.message = std::move(message);
        return r;
    }
};

template <typename T>
class [[nodiscard]] Expected {
public:
    Expected(T value) : m_state(std::move(value)) {}
    Expected(Reason reason) : m_state(std::move(reason)) {}

    bool ok() const { return m_state.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<0>(m_state); }
    const T& value() const& { return std::get<0>(m_state); }
    T&& value() && { return std::get<0>(std::move(m_state)); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }

    const Reason& reason() const { return std::get<1>(m_state); }
    Reason& reason() { return std::get<1>(m_state); }
    quarvel_error_t code() const { return ok() ? meSuccess : reason().code; }

private:
    std::variant<T, Reason> m_state;
};

// The reason lives out of line: every record read returns a Status or two,
// and a success should cost a null pointer, not three empty strings made and
// destroyed.
class [[nodiscard]] Status {
public:
    Status() = default;
    Status(Reason reason) : m_reason(new Reason(std::move(reason))), m_failed(true) {}
    Status(const Status& other)
        : m_reason(other.m_reason ? new Reason(*other.m_reason) : nullptr), m_failed(other.m_failed) {}
    Status(Status&& other) noexcept = default;
    Status& operator=(const Status& other) {
        if (this != &other) {
            m_reason.reset(other.m_reason ? new Reason(*other.m_reason) : nullptr);
            m_failed = other.m_failed;
        }
        return *this;
    }
    Status& operator=(Status&& other) noexcept = default;
    static Status success() { return Status(); }

    bool ok() const { return !m_failed; }
    explicit operator bool() const { return ok(); }
    // A success's reason is an empty one.
    const Reason& reason() const { return m_reason ? *m_reason : noReason(); }
    Reason& reason() {
        if (!m_reason)
            m_reason.reset(new Reason());
        return *m_reason;
    }
    quarvel_error_t code() const { return m_failed ? reason().code : meSuccess; }

private:
    static const Reason& noReason();

    std::unique_ptr<Reason> m_reason;
    bool m_failed = false;
};

QUARVEL_NAMESPACE_END

#endif
