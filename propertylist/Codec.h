// The property-list codec: reads and writes both file formats, binary and XML.
//
// Binary files hold null, booleans, integers, reals, dates, data, texts, arrays and dictionaries in a table of objects
// that refer to one another; XML files hold the same as elements below `<plist version="1.0">`. A document type line of
// an XML file is ignored, definitions inside it are refused, and none is ever written.
//
// What is read is untrusted. Reading takes time in proportion to the bytes, and memory of at most
// `propertyListMemoryFactor` times their number plus a few kilobytes, the value included:
// - there are at most `maxPropertyListSize` bytes, and containers are nested at most `maxPropertyListDepth` deep;
// - a binary file may refer to the same object many times, as long as the list that one sees who follows every
//   reference stays within bounds: it has at most `propertyListExpansionFactor` elements for each byte of the file, and
//   its keys, texts and data, where they are met again, have at most `propertyListRepetitionFactor` bytes for each byte
//   of the file, and `propertyListRepetitionAllowance` more (texts of up to 14 bytes do not count);
// - text must be valid, keys must be texts and differ from one another.
// Anything else ends in an error of the domain `propertyListErrorDomain`.
//
// What is written can be read again and gives an equal value, except for what XML cannot hold
// (propertylist/xml/XmlWriter.h). Equal values whose dictionaries have the same order give the same bytes. The binary
// format holds each text, number, date and datum once, or as often as the bounds above ask for. XML has nothing shared:
// of a list that expands to more than `maxPropertyListXmlSize` bytes no file is made, but the text can still be had
// piece by piece.
#pragma once

#include "platform/PropertyListSerialization.h"
#include "propertylist/PropertyListError.h"

#include <functional>

namespace appsync {

inline constexpr std::size_t maxPropertyListSize = (std::size_t{1} << 31) - 1;
inline constexpr std::size_t maxPropertyListDepth = 512;
inline constexpr std::size_t propertyListExpansionFactor = 8;
inline constexpr std::size_t propertyListRepetitionFactor = 32;
inline constexpr std::size_t propertyListRepetitionAllowance = std::size_t{16} << 20;
inline constexpr std::size_t propertyListMemoryFactor = 40;
inline constexpr std::size_t maxPropertyListXmlSize = std::size_t{64} << 20;

class PropertyListCodec final : public PropertyListSerialization {
  public:
    [[nodiscard]] std::optional<Value> propertyListWithData(std::string_view bytes, ErrorPtr* error) noexcept override;
    [[nodiscard]] std::optional<Data> dataWithPropertyList(const Value& value, PropertyListFormat format,
                                                           ErrorPtr* error) noexcept override;
    /// Hands the text of an XML file to `take`, some kilobytes at a time, until it returns false. False with
    /// an error when the value has no such form; what was handed over before is then no whole file.
    bool writeXml(const Value& value, const std::function<bool(std::string_view)>& take, ErrorPtr* error) noexcept;
};

} // namespace appsync
