// What tests of the codec say again and again.
#pragma once

#include "propertylist/Codec.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace appsync {

/// The value that the bytes hold; a failed test and null when they are no property list.
Value mustRead(std::string_view bytes);
std::string mustWrite(const Value& value, PropertyListFormat format);

/// That reading fails with this code, at this byte, and with a sentence.
void expectReadError(std::string_view bytes, PropertyListErrorCode code, std::size_t offset);
/// That writing fails with this code, at this key path, and with a sentence.
void expectWriteError(const Value& value, PropertyListFormat format, PropertyListErrorCode code,
                      std::string_view keyPath);

/// That reading gives a value or a typed error.
void expectValueOrError(std::string_view bytes);

/// A list with every kind of value, small, for tests that damage it.
Value smallSample();

/// Arrays in arrays, `depth` of them.
Value nestedArrays(std::size_t depth);

} // namespace appsync
