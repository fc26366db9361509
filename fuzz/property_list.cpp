// Any bytes as a property list, binary or XML: a value or an error, and what was read survives being written in either
// format and read again. What is read as XML is well-formed to another parser, too.
#include "fuzz/Fuzz.h"
#include "propertylist/Codec.h"

#include <expat.h>

namespace {

using appsync::PropertyListFormat;
using appsync::fuzz::expect;

/// Written, read and written again it is the same bytes. Some values have no form in a format; those end in an error.
void checkRoundTrip(appsync::PropertyListCodec& codec, const appsync::Value& value, PropertyListFormat format) {
    appsync::ErrorPtr error;
    const auto written = codec.dataWithPropertyList(value, format, &error);
    if (!written) {
        expect(error != nullptr, "a list that cannot be written has an error");
        return;
    }
    const auto read = codec.propertyListWithData(written->bytes(), &error);
    expect(read.has_value(), "what was written can be read");
    const auto again = codec.dataWithPropertyList(*read, format, &error);
    expect(again.has_value() && again->bytes() == written->bytes(), "a round trip changes nothing");
}

bool isWellFormed(std::string_view document) {
    XML_Parser parser = XML_ParserCreate("UTF-8"); // null without memory, of which there is plenty
    const XML_Status status = XML_Parse(parser, document.data(), static_cast<int>(document.size()), XML_TRUE);
    XML_ParserFree(parser);
    return status == XML_STATUS_OK;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    appsync::PropertyListCodec codec;
    appsync::ErrorPtr error;
    const std::string_view file = appsync::fuzz::text(bytes, size);
    const auto value = codec.propertyListWithData(file, &error);
    expect(value.has_value() != (error != nullptr), "there is a value or an error");
    if (value) {
        expect(file.starts_with("bplist00") || isWellFormed(file), "what is read as XML is well-formed");
        checkRoundTrip(codec, *value, PropertyListFormat::binary);
        checkRoundTrip(codec, *value, PropertyListFormat::xml);
    }
    return 0;
}
