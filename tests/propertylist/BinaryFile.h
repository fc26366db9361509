// Makes binary property lists by hand, correct ones and others.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace appsync {

/// A string of the given bytes.
std::string bytes(std::initializer_list<unsigned> values);

struct BinaryFile {
    std::vector<std::string> objects;
    std::size_t offsetWidth = 2;
    std::size_t referenceWidth = 1;
    std::uint64_t root = 0;

    /// Where an object starts in the file.
    [[nodiscard]] std::size_t offsetOf(std::size_t object) const;
    [[nodiscard]] std::size_t tableOffset() const { return offsetOf(objects.size()); }
    [[nodiscard]] std::size_t trailerOffset() const { return tableOffset() + objects.size() * offsetWidth; }
    [[nodiscard]] std::string file() const;
};

std::string bigEndian(std::uint64_t number, std::size_t width);

/// A file with one object.
std::string fileOf(const std::string& object);

} // namespace appsync
