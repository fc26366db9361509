// The property-list codec: reads and writes both file formats, binary and XML.
//
// Binary files hold null, booleans, integers, reals, dates, data, texts, arrays and dictionaries in a table of objects
// that refer to one another; XML files hold the same as elements below `<plist version="1.0">`. A document type line of
// an XML file is ignored, definitions inside it are refused, and none is ever written.
//
// What is read is untrusted. Reading takes time in proportion to the bytes, and memory of at most
// `PropertyListMemoryFactor` times their number plus a few kilobytes, the value included:
// - there are at most `PropertyListSizeLimit` bytes, and containers are nested at most `PropertyListDepthLimit` deep;
// - a binary file may refer to the same container many times, as long as the list that one sees who follows every
//   reference has at most `PropertyListExpansionFactor` elements for each byte of the file, and the keys of its
//   dictionaries, as often as they are used, have at most `PropertyListKeyFactor` bytes for each byte of the file;
// - text must be valid, keys must be texts and differ from one another.
// Anything else ends in an error of the domain `PropertyListErrorDomain`.
//
// What is written can be read again and gives an equal value, except that XML holds dates in whole seconds. Equal
// values whose dictionaries have the same order give the same bytes. The binary format holds each text, number, date
// and datum once.
#pragma once

#include "platform/PropertyListSerialization.h"
#include "propertylist/PropertyListError.h"

namespace appsync {

inline constexpr std::size_t PropertyListSizeLimit = (std::size_t{1} << 31) - 1;
inline constexpr std::size_t PropertyListDepthLimit = 512;
inline constexpr std::size_t PropertyListExpansionFactor = 8;
inline constexpr std::size_t PropertyListKeyFactor = 256;
inline constexpr std::size_t PropertyListMemoryFactor = 40;

class PropertyListCodec final : public PropertyListSerialization {
  public:
    [[nodiscard]] std::optional<Value> propertyListWithData(std::string_view bytes, ErrorPtr* error) noexcept override;
    [[nodiscard]] std::optional<Data> dataWithPropertyList(const Value& value, PropertyListFormat format,
                                                           ErrorPtr* error) noexcept override;
};

} // namespace appsync
