// Any bytes as a property list, binary or XML: a value or an error, and what was read survives being written in either
// format and read again.
#include "fuzz/Fuzz.h"
#include "propertylist/Codec.h"

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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    appsync::PropertyListCodec codec;
    appsync::ErrorPtr error;
    const auto value = codec.propertyListWithData(appsync::fuzz::text(bytes, size), &error);
    expect(value.has_value() != (error != nullptr), "there is a value or an error");
    if (value) {
        checkRoundTrip(codec, *value, PropertyListFormat::binary);
        checkRoundTrip(codec, *value, PropertyListFormat::xml);
    }
    return 0;
}
