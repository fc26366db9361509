// Reading and writing property-list files' bytes.
#pragma once

#include "values/Error.h"
#include "values/PropertyList.h"

#include <optional>
#include <string_view>

namespace appsync {

enum class PropertyListFormat { binary, xml };

/// Every operation may be called on any thread at any time.
class PropertyListSerialization {
  public:
    virtual ~PropertyListSerialization() = default;

    /// The value that the bytes hold, in either format; containers may be changed freely. Nothing, and the reason in
    /// `error` unless that is null, when they are no property list. The bytes are untrusted: time and memory are
    /// bounded by a small multiple of their size.
    [[nodiscard]] virtual std::optional<Value> propertyListWithData(std::string_view bytes,
                                                                    ErrorPtr* error) noexcept = 0;

    /// The bytes of a property list. Nothing, and the reason in `error` unless that is null, when the value holds
    /// something that the format cannot express, such as null.
    [[nodiscard]] virtual std::optional<Data> dataWithPropertyList(const Value& value, PropertyListFormat format,
                                                                   ErrorPtr* error) noexcept = 0;
};

} // namespace appsync
