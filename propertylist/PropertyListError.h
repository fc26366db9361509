// Why a property list could not be read or written.
#pragma once

#include <cstdint>
#include <string_view>

namespace appsync {

inline constexpr std::string_view propertyListErrorDomain = "PropertyListError";

/// In the user info of an error in reading: the number of the byte, from 0, where the trouble begins.
inline constexpr std::string_view propertyListErrorOffsetKey = "offset";
/// In the user info of an error in writing: the way from the root to the value, such as "[3].name"; empty for the root.
inline constexpr std::string_view propertyListErrorKeyPathKey = "keyPath";

enum class PropertyListErrorCode : std::int64_t {
    // Reading either format.
    unknownFormat = 1,    // neither a binary nor an XML property list
    tooLarge = 2,         // objects that overlap or expand beyond the limit, or more bytes than can be handled
    tooDeep = 3,          // containers nested beyond the limit; also in writing
    invalidText = 4,      // not valid in its encoding, or a character that the format cannot hold; also in writing
    invalidKey = 5,       // a key that is no text
    duplicateKey = 6,     // a key that its dictionary has already
    numberOutOfRange = 7, // an integer beyond 64 bits, or a real that the format cannot hold; also in writing
    invalidDate = 8,      // not a point in time that the format can hold; also in writing
    outOfMemory = 9,      // also in writing
    // Reading binary files.
    truncated = 20,         // the bytes end before the file can
    invalidTrailer = 21,    // the table of contents at the end of the file contradicts itself
    invalidOffset = 22,     // an object lies, or reaches, outside of the objects' part of the file
    invalidReference = 23,  // a reference to an object that does not exist
    referenceCycle = 24,    // a container that holds itself
    nullObject = 25,        // the null object, which has no place in a property list
    unsupportedObject = 26, // an object of a kind that property lists do not have
    // Reading XML files.
    malformedXml = 40,        // not well-formed
    unsupportedEncoding = 41, // declared in another encoding than UTF-8
    typeDefinitions = 42,     // a document type with definitions of its own, such as entities
    unexpectedElement = 43,   // an element in a place where it means nothing
    unexpectedText = 44,      // text between elements
    missingKey = 45,          // a value in a dictionary without a key before it
    missingValue = 46,        // a key without a value, or a root without one
    invalidNumber = 47,       // not written as a number
    invalidData = 48,         // not in base 64
    // Writing.
    nullValue = 60, // a null value, which no file can hold
};

} // namespace appsync
