#include "tests/propertylist/Expectations.h"

namespace appsync {

namespace {

void expectError(const ErrorPtr& error, PropertyListErrorCode code) {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), propertyListErrorDomain);
    EXPECT_EQ(error->code(), static_cast<std::int64_t>(code)) << error->description();
    const auto sentence = error->userInfo().string(errorDescriptionKey);
    ASSERT_TRUE(sentence);
    EXPECT_TRUE(sentence->starts_with("The property list cannot be ")) << *sentence;
    EXPECT_TRUE(sentence->ends_with('.')) << *sentence;
}

} // namespace

Value mustRead(std::string_view bytes) {
    ErrorPtr error;
    auto value = PropertyListCodec().propertyListWithData(bytes, &error);
    EXPECT_TRUE(value) << (error ? error->description() : "no error");
    return value ? *std::move(value) : Value();
}

std::string mustWrite(const Value& value, PropertyListFormat format) {
    ErrorPtr error;
    const auto data = PropertyListCodec().dataWithPropertyList(value, format, &error);
    EXPECT_TRUE(data) << (error ? error->description() : "no error");
    return data ? std::string(data->bytes()) : std::string();
}

void expectReadError(std::string_view bytes, PropertyListErrorCode code, std::size_t offset) {
    ErrorPtr error;
    const auto value = PropertyListCodec().propertyListWithData(bytes, &error);
    EXPECT_FALSE(value) << value->description();
    ASSERT_NO_FATAL_FAILURE(expectError(error, code));
    const Value* found = error->userInfo().find(propertyListErrorOffsetKey);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->unsignedInteger(), offset) << error->description();
    EXPECT_FALSE(PropertyListCodec().propertyListWithData(bytes, nullptr));
}

void expectWriteError(const Value& value, PropertyListFormat format, PropertyListErrorCode code,
                      std::string_view keyPath) {
    ErrorPtr error;
    EXPECT_FALSE(PropertyListCodec().dataWithPropertyList(value, format, &error));
    ASSERT_NO_FATAL_FAILURE(expectError(error, code));
    EXPECT_EQ(error->userInfo().string(propertyListErrorKeyPathKey), keyPath);
    EXPECT_FALSE(PropertyListCodec().dataWithPropertyList(value, format, nullptr));
}

void expectValueOrError(std::string_view bytes) {
    ErrorPtr error;
    const auto value = PropertyListCodec().propertyListWithData(bytes, &error);
    if (value) {
        EXPECT_FALSE(error);
        EXPECT_FALSE(value->isNull());
        EXPECT_LE(value->description().size(), 100 * bytes.size());
    } else {
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), propertyListErrorDomain);
        EXPECT_TRUE(error->userInfo().string(errorDescriptionKey));
        EXPECT_TRUE(error->userInfo().contains(propertyListErrorOffsetKey));
    }
}

Value smallSample() {
    return Dictionary{{"flags", Array{true, false}},
                      {"numbers", Array{0, 255, 256, 70'000, 5'000'000'000, -1, std::uint64_t{1} << 63}},
                      {"ratio", 0.75},
                      {"when", Date{-12345.0}},
                      {"data", Data("\x01\x02\x03")},
                      {"text", "plain ASCII of more than fourteen bytes"},
                      {"umlaut", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"},
                      {"empty", Array{Array{}, Dictionary{}, "", Data()}}};
}

Value nestedArrays(std::size_t depth) {
    Value value = Array{};
    for (std::size_t i = 1; i < depth; ++i) {
        Array outer;
        outer.push_back(std::move(value));
        value = std::move(outer);
    }
    return value;
}

} // namespace appsync
