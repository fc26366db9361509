#include "propertylist/Failure.h"

#include "propertylist/Utf.h"

#include <utility>

namespace appsync::propertylist {

void failReading(PropertyListErrorCode code, std::size_t offset, std::string reason) {
    throw Failure{code, std::move(reason), offset, {}};
}

void failWriting(PropertyListErrorCode code, std::string reason) {
    throw Failure{code, std::move(reason), std::nullopt, {}};
}

void prependKey(Failure& failure, std::string_view key) {
    std::string path = isUtf8(key) ? std::string(key) : quoted(key);
    if (!failure.keyPath.empty() && failure.keyPath.front() != '[') {
        path += '.';
    }
    failure.keyPath.insert(0, path);
}

void prependIndex(Failure& failure, std::size_t index) {
    std::string path = "[" + std::to_string(index) + "]";
    if (!failure.keyPath.empty() && failure.keyPath.front() != '[') {
        path += '.';
    }
    failure.keyPath.insert(0, path);
}

std::string quoted(std::string_view text) {
    constexpr std::size_t shown = 40;
    std::string out = "\"";
    for (const char c : text.substr(0, shown)) {
        const auto byte = static_cast<unsigned char>(c);
        out += byte < 0x20 || byte >= 0x7F ? '?' : c;
    }
    out += text.size() > shown ? "...\"" : "\"";
    return out;
}

ErrorPtr errorFromFailure(const Failure& failure) {
    Dictionary userInfo;
    std::string sentence;
    if (failure.offset) {
        sentence =
            "The property list cannot be read: " + failure.reason + " at byte " + std::to_string(*failure.offset) + ".";
        userInfo.set(propertyListErrorOffsetKey, *failure.offset);
    } else {
        sentence = "The property list cannot be written: " + failure.reason + " at " +
                   (failure.keyPath.empty() ? "its root" : failure.keyPath) + ".";
        userInfo.set(propertyListErrorKeyPathKey, failure.keyPath);
    }
    userInfo.set(errorDescriptionKey, sentence);
    return Error::make(propertyListErrorDomain, static_cast<std::int64_t>(failure.code), std::move(userInfo));
}

} // namespace appsync::propertylist
