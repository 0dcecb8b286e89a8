// Error types of the portable layer. Each carries a status number that names
// the failing operation precisely; what() carries the human-readable text.
#pragma once

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>

class QRX_RuntimeError : public std::runtime_error {
  public:
    QRX_RuntimeError(int32_t status, const std::string& message) : std::runtime_error(message), m_status(status) {}
    int32_t GetStatus() const { return m_status; }

  private:
    int32_t m_status;
};

class QRX_RangeError : public QRX_RuntimeError {
  public:
    using QRX_RuntimeError::QRX_RuntimeError;
};

class QRX_LogicError : public std::logic_error {
  public:
    QRX_LogicError(int32_t status, const std::string& message) : std::logic_error(message), m_status(status) {}
    int32_t GetStatus() const { return m_status; }

  private:
    int32_t m_status;
};

class QRX_InvalidArgument : public QRX_LogicError {
  public:
    using QRX_LogicError::QRX_LogicError;
};

// For a catch (...) that would otherwise swallow what it caught: true when
// that is the unwinding of a thread being cancelled (abi::__forced_unwind) or
// any other exception that is not C++'s own, which must be rethrown so that
// the thread can end. std::current_exception() holds no such exception.
// (Catching abi::__forced_unwind by reference binds a reference to no object,
// which the undefined-behaviour sanitizer reports.)
inline bool IsThreadUnwinding()
{
    return !std::current_exception();
}

// First thing in a catch-all handler that goes on to swallow: lets a
// cancelled thread's unwinding pass, and returns otherwise.
inline void RethrowForcedUnwind()
{
    if (IsThreadUnwinding())
        throw;
}

// Status numbers raised outside the text converters.
namespace QRX_Status {
constexpr int32_t NullReference = 40460;
constexpr int32_t InvalidArgument = 40463;
} // namespace QRX_Status

// The layer's logic-error helper: one place that builds and throws the error.
[[noreturn]] inline void ThrowLogicError(int32_t status, const std::string& message)
{
    throw QRX_LogicError(status, message);
}
