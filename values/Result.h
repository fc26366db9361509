// The outcome of an operation that can fail: a value, or the error that says why there is none.
#pragma once

#include "values/Error.h"

#include <cassert>
#include <optional>
#include <string_view>
#include <utility>

namespace appsync {

template <class T> class [[nodiscard]] Result {
  public:
    Result(T value) : _value(std::move(value)) {}
    /// The error must not be null.
    Result(ErrorPtr error) : _error(std::move(error)) { assert(_error != nullptr); }

    explicit operator bool() const noexcept { return _value.has_value(); }
    // Only of a success:
    T& operator*() noexcept { return _checked(); }
    const T& operator*() const noexcept { return _checked(); }
    T* operator->() noexcept { return &_checked(); }
    const T* operator->() const noexcept { return &_checked(); }
    /// Null after a success.
    [[nodiscard]] const ErrorPtr& error() const noexcept { return _error; }

  private:
    T& _checked() noexcept {
        assert(_value.has_value());
        return *_value;
    }
    const T& _checked() const noexcept {
        assert(_value.has_value());
        return *_value;
    }

    std::optional<T> _value;
    ErrorPtr _error;
};

/// An operation without a value.
template <> class [[nodiscard]] Result<void> {
  public:
    Result() = default;
    /// Null means success.
    Result(ErrorPtr error) : _error(std::move(error)) {}

    explicit operator bool() const noexcept { return !_error; }
    [[nodiscard]] const ErrorPtr& error() const noexcept { return _error; }

  private:
    ErrorPtr _error;
};

/// For operations that return whether they succeeded, and fill an error that may be null.
template <class T> bool hasSucceeded(const Result<T>& outcome, ErrorPtr* error) noexcept {
    if (!outcome && error) {
        *error = outcome.error();
    }
    return bool(outcome);
}

/// Whether an error has this domain and this code of the domain's enumeration.
template <class Code> [[nodiscard]] bool isError(const ErrorPtr& error, std::string_view domain, Code code) noexcept {
    return error && error->domain() == domain && error->code() == static_cast<std::int64_t>(code);
}

} // namespace appsync
