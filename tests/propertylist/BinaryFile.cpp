#include "tests/propertylist/BinaryFile.h"

namespace appsync {

std::string bytes(std::initializer_list<unsigned> values) {
    std::string out;
    for (const unsigned value : values) {
        out += static_cast<char>(value);
    }
    return out;
}

std::string bigEndian(std::uint64_t number, std::size_t width) {
    std::string out(width, '\0');
    for (std::size_t i = width; i-- > 0; number >>= 8) {
        out[i] = static_cast<char>(number & 0xFF);
    }
    return out;
}

std::size_t BinaryFile::offsetOf(std::size_t object) const {
    std::size_t offset = 8;
    for (std::size_t i = 0; i < object; ++i) {
        offset += objects[i].size();
    }
    return offset;
}

std::string BinaryFile::file() const {
    std::string out = "bplist00";
    std::string table;
    for (const std::string& object : objects) {
        table += bigEndian(out.size(), offsetWidth);
        out += object;
    }
    const std::size_t tableStart = out.size();
    return out + table + std::string(6, '\0') + bigEndian(offsetWidth, 1) + bigEndian(referenceWidth, 1) +
           bigEndian(objects.size(), 8) + bigEndian(root, 8) + bigEndian(tableStart, 8);
}

std::string fileOf(const std::string& object) {
    BinaryFile file;
    file.objects = {object};
    return file.file();
}

} // namespace appsync
