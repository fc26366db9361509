// What went wrong: a domain, a code whose meaning the domain defines, and facts for the reader.
#pragma once

#include "values/PropertyList.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace appsync {

class Error;

/// A shared, immutable error; null means "no error".
using ErrorPtr = std::shared_ptr<const Error>;

/// The sync host's domain: 1 install preparation failed, 2 transfer cancelled by the user, 29 restore failed,
/// 30 install promise could not be attached or a coordinator was left outstanding.
inline constexpr std::string_view QRErrorDomain = "QRError";
/// Codes are errno numbers.
inline constexpr std::string_view posixErrorDomain = "POSIX";

/// Keys of an error's user info that every service uses alike; all are optional.
inline constexpr std::string_view errorDescriptionKey = "description"; // a sentence: what, where, what to do
inline constexpr std::string_view errorPathKey = "path";               // the file or folder that is meant

class Error {
  public:
    Error(std::string_view domain, std::int64_t code, Dictionary userInfo = {})
        : _domain(domain), _code(code), _userInfo(std::move(userInfo)) {}

    [[nodiscard]] static ErrorPtr make(std::string_view domain, std::int64_t code, Dictionary userInfo = {}) {
        return std::make_shared<const Error>(domain, code, std::move(userInfo));
    }

    [[nodiscard]] const std::string& domain() const noexcept { return _domain; }
    [[nodiscard]] std::int64_t code() const noexcept { return _code; }
    [[nodiscard]] const Dictionary& userInfo() const noexcept { return _userInfo; }
    /// On one line: domain, code and user info.
    [[nodiscard]] std::string description() const;

  private:
    std::string _domain;
    std::int64_t _code;
    Dictionary _userInfo;
};

/// An error with its sentence for the reader and, unless empty, the path that is meant.
[[nodiscard]] ErrorPtr makeError(std::string_view domain, std::int64_t code, std::string_view description,
                                 std::string_view path = {});
/// The sentence of an error: its description if it has one, else domain, code and facts.
[[nodiscard]] std::string errorText(const ErrorPtr& error);

} // namespace appsync
