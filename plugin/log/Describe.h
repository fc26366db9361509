// How objects print in a log message: on one line, "(null)" for what is absent.
#pragma once

#include "values/PropertyList.h"

#include <concepts>
#include <ranges>
#include <string>
#include <string_view>
#include <type_traits>

namespace appsync {

template <class Object>
concept TextLike = std::convertible_to<const Object&, std::string_view>;

template <class Object>
concept SelfDescribing = requires(Object& object) {
    { object.description() } -> std::convertible_to<std::string>;
};

/// An optional or a pointer.
template <class Object>
concept Absentable = requires(const Object& object) {
    static_cast<bool>(object);
    *object;
};

template <class Object> constexpr bool isDescribable() {
    if constexpr (TextLike<Object> || SelfDescribing<Object> || std::same_as<Object, Dictionary>) {
        return true;
    } else if constexpr (Absentable<Object>) {
        return isDescribable<std::remove_cvref_t<decltype(*std::declval<const Object&>())>>();
    } else if constexpr (std::ranges::range<const Object>) {
        return isDescribable<std::ranges::range_value_t<const Object>>();
    } else {
        return false;
    }
}

template <class Object>
concept Describable = isDescribable<std::remove_cv_t<Object>>();

/// Text as it is, arrays as "(a, b)", other objects as they describe themselves.
template <Describable Object> void describe(Description& out, Object& object) {
    using Type = std::remove_cv_t<Object>;
    if constexpr (TextLike<Type>) {
        out.append(object);
    } else if constexpr (std::same_as<Type, Value>) {
        object.appendDescription(out);
    } else if constexpr (std::same_as<Type, Dictionary>) {
        Value(object).appendDescription(out);
    } else if constexpr (SelfDescribing<Object>) {
        out.append(object.description());
    } else if constexpr (Absentable<Type>) {
        if (object) {
            describe(out, *object);
        } else {
            out.append("(null)");
        }
    } else {
        out.append("(");
        const char* separator = "";
        for (const auto& item : object) {
            out.append(separator);
            describe(out, item);
            separator = ", ";
            if (out.isFull()) {
                return;
            }
        }
        out.append(")");
    }
}

} // namespace appsync
