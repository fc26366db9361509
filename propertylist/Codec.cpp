#include "propertylist/Codec.h"

#include "propertylist/Failure.h"
#include "propertylist/binary/BinaryFormat.h"
#include "propertylist/binary/BinaryReader.h"
#include "propertylist/binary/BinaryWriter.h"
#include "propertylist/xml/XmlReader.h"
#include "propertylist/xml/XmlWriter.h"

#include <exception>

namespace appsync {

namespace {

using propertylist::Failure;
using Code = PropertyListErrorCode;

Value read(std::string_view bytes) {
    if (bytes.size() > maxPropertyListSize) {
        propertylist::failReading(Code::tooLarge, maxPropertyListSize, "more bytes than a property list may have");
    }
    if (bytes.starts_with(propertylist::binaryMagic)) {
        return propertylist::readBinary(bytes);
    }
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    const std::string_view content = bytes.starts_with(byteOrderMark) ? bytes.substr(byteOrderMark.size()) : bytes;
    const std::size_t first = content.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos || content[first] != '<') {
        propertylist::failReading(Code::unknownFormat, 0, "neither the binary nor the XML format begins");
    }
    return propertylist::readXml(bytes);
}

/// Runs `work` and turns what it throws into an error.
template <class Work>
auto guarded(ErrorPtr* error, bool reading, Work work) noexcept -> std::optional<decltype(work())> {
    ErrorPtr reason;
    try {
        try {
            return work();
        } catch (const Failure& failure) {
            reason = propertylist::errorFromFailure(failure);
        } catch (const std::exception&) {
            Failure failure{Code::outOfMemory, "the memory does not suffice", {}, {}};
            if (reading) {
                failure.offset = 0;
            }
            reason = propertylist::errorFromFailure(failure);
        }
    } catch (...) {
        // Not even the error fits into memory.
    }
    if (error) {
        *error = std::move(reason);
    }
    return std::nullopt;
}

} // namespace

std::optional<Value> PropertyListCodec::propertyListWithData(std::string_view bytes, ErrorPtr* error) noexcept {
    return guarded(error, true, [&] { return read(bytes); });
}

std::optional<Data> PropertyListCodec::dataWithPropertyList(const Value& value, PropertyListFormat format,
                                                            ErrorPtr* error) noexcept {
    return guarded(error, false, [&] {
        return format == PropertyListFormat::binary ? propertylist::writeBinary(value, maxPropertyListSize)
                                                    : propertylist::writeXml(value, maxPropertyListXmlSize);
    });
}

bool PropertyListCodec::writeXml(const Value& value, const std::function<bool(std::string_view)>& take,
                                 ErrorPtr* error) noexcept {
    const auto written = guarded(error, false, [&] {
        propertylist::writeXml(value, take);
        return true;
    });
    return written.has_value();
}

} // namespace appsync
