// The plug-in's messages: a format and its arguments, checked against each other at compile time, and rendered only
// when the host's log wants them.
//
// Conversions: %{public}@ prints any describable object, %s text, %c a character, %d a small number or flag, %lu %llu
// an unsigned number, %ld %lld a signed one, %f %lf a real with six decimals.
//
// An argument is rendered up to its limit and no further (values/Description.h), since it may come from a small file
// that expands beyond measure.
#pragma once

#include "platform/host/Log.h"
#include "plugin/log/Describe.h"

#include <algorithm>
#include <array>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace appsync {

/// The plug-in's bundle identifier; it begins every message.
inline constexpr std::string_view plugInIdentifier = "com.zuvex.tzl.Quorrel.AppSync";

/// The bytes that the arguments of a message take up at most, but for the marks of what was cut.
struct MessageLimits {
    std::size_t argument; // each
    std::size_t message;  // all together, the format's text before them included
};
inline constexpr MessageLimits usualMessageLimits = {maxDescriptionSize, 4 * maxDescriptionSize};
/// A payload is logged for its content: the to-do list of thousands of apps fits.
inline constexpr MessageLimits oversizeMessageLimits = {std::size_t{2} << 20, std::size_t{4} << 20};

namespace detail {

enum class Conversion { none, object, text, character, smallNumber, unsignedNumber, signedNumber, real };

struct Specifier {
    Conversion conversion;
    std::size_t begin; // of the '%'
    std::size_t end;   // past the last letter
};

/// The first conversion at or after a position; `none` at the end when there is no further one.
constexpr Specifier nextSpecifier(std::string_view format, std::size_t from) {
    constexpr struct {
        std::string_view letters;
        Conversion conversion;
    } known[] = {{"%{public}@", Conversion::object}, {"%llu", Conversion::unsignedNumber},
                 {"%lld", Conversion::signedNumber}, {"%lu", Conversion::unsignedNumber},
                 {"%ld", Conversion::signedNumber},  {"%lf", Conversion::real},
                 {"%f", Conversion::real},           {"%d", Conversion::smallNumber},
                 {"%c", Conversion::character},      {"%s", Conversion::text}};
    const std::size_t begin = format.find('%', from);
    if (begin == std::string_view::npos) {
        return {Conversion::none, format.size(), format.size()};
    }
    for (const auto& [letters, conversion] : known) {
        if (format.substr(begin).starts_with(letters)) {
            return {conversion, begin, begin + letters.size()};
        }
    }
    throw "a log format holds an unknown conversion";
}

template <class Type>
concept SmallNumber = std::integral<Type> && sizeof(Type) <= 4 && !std::same_as<Type, char>;

template <class Argument> constexpr bool accepts(Conversion conversion) {
    using Type = std::remove_cvref_t<Argument>;
    switch (conversion) {
    case Conversion::object: return Describable<Type>;
    case Conversion::text: return std::is_convertible_v<Type, std::string_view>;
    case Conversion::character: return std::is_same_v<Type, char>;
    case Conversion::smallNumber: return SmallNumber<Type>;
    case Conversion::unsignedNumber: return std::is_unsigned_v<Type> && !std::is_same_v<Type, bool>;
    case Conversion::signedNumber: return std::is_signed_v<Type> && std::is_integral_v<Type>;
    case Conversion::real: return std::is_same_v<Type, double>;
    case Conversion::none: break;
    }
    return false;
}

void appendUnsigned(Description& out, std::uint64_t number);
void appendSigned(Description& out, std::int64_t number);
void appendReal(Description& out, double number);

template <class Argument> void appendArgument(Description& out, const Argument& argument) {
    using Type = std::remove_cvref_t<Argument>;
    if constexpr (std::is_same_v<Type, char>) {
        out.append({&argument, 1});
    } else if constexpr (std::is_integral_v<Type>) {
        std::is_signed_v<Type> ? appendSigned(out, static_cast<std::int64_t>(argument))
                               : appendUnsigned(out, static_cast<std::uint64_t>(argument));
    } else if constexpr (std::is_same_v<Type, double>) {
        appendReal(out, argument);
    } else {
        describe(out, argument);
    }
}

} // namespace detail

template <class... Arguments> class LogFormat {
  public:
    consteval LogFormat(const char* text) : _text(text) {
        std::size_t from = 0;
        [[maybe_unused]] const auto matches = [&]<class Argument>(std::type_identity<Argument>) {
            const auto specifier = detail::nextSpecifier(_text, from);
            from = specifier.end;
            return detail::accepts<Argument>(specifier.conversion);
        };
        if (!(matches(std::type_identity<Arguments>{}) && ...)) {
            throw "a log argument does not fit its conversion";
        }
        if (detail::nextSpecifier(_text, from).conversion != detail::Conversion::none) {
            throw "a log format has more conversions than arguments";
        }
    }
    [[nodiscard]] constexpr std::string_view text() const noexcept { return _text; }

  private:
    std::string_view _text;
};

/// Writes the plug-in's messages to the host's log. Any thread.
class PlugInLog {
  public:
    explicit PlugInLog(HostLog& sink) noexcept : _sink(sink) {}

    /// A message of the default level.
    template <class... Arguments>
    void message(LogFormat<std::type_identity_t<Arguments>...> format, const Arguments&... arguments) const {
        _write(QRLogCategorySyncBundle, LogLevel::standard, true, format.text(), arguments...);
    }
    /// A message of the error level.
    template <class... Arguments>
    void error(LogFormat<std::type_identity_t<Arguments>...> format, const Arguments&... arguments) const {
        _write(QRLogCategorySyncBundle, LogLevel::error, true, format.text(), arguments...);
    }
    /// A large payload, at the default level.
    template <class... Arguments>
    void oversize(LogFormat<std::type_identity_t<Arguments>...> format, const Arguments&... arguments) const {
        _write(QRLogCategorySyncBundle_Oversize, LogLevel::standard, true, format.text(), arguments...);
    }
    /// A failed type check, at the error level; the only message without the plug-in's identifier.
    template <class... Arguments>
    void typeCheck(LogFormat<std::type_identity_t<Arguments>...> format, const Arguments&... arguments) const {
        _write(QRLogCategoryFramework, LogLevel::error, false, format.text(), arguments...);
    }

  private:
    template <class... Arguments>
    void _write(QRLogCategory category, LogLevel level, bool withIdentifier, std::string_view format,
                const Arguments&... arguments) const {
        if (!_sink.isEnabled(category, level)) {
            return;
        }
        const MessageLimits& limits =
            category == QRLogCategorySyncBundle_Oversize ? oversizeMessageLimits : usualMessageLimits;
        std::string text;
        if (withIdentifier) {
            text.append(plugInIdentifier).append("|");
        }
        std::size_t from = 0;
        [[maybe_unused]] const auto append = [&](const auto& argument) {
            const auto specifier = detail::nextSpecifier(format, from);
            text.append(format.substr(from, specifier.begin - from));
            Description description(text,
                                    std::min(limits.argument, limits.message - std::min(limits.message, text.size())));
            detail::appendArgument(description, argument);
            from = specifier.end;
        };
        (append(arguments), ...);
        text.append(format.substr(from));
        _sink.write(category, level, withIdentifier ? "%s|" + std::string(format) : std::string(format), text);
    }

    HostLog& _sink;
};

} // namespace appsync
