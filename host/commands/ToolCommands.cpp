// The commands that need no device.
#include "desktop/ArchivePacker.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "propertylist/Codec.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>

namespace appsync::host {

namespace {

/// The property list in a file; nothing, after telling the person why, when there is none.
std::optional<Value> readPlist(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fail("'" + path + "' cannot be read: " + std::strerror(errno) + ".");
        return std::nullopt;
    }
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ErrorPtr error;
    auto value = PropertyListCodec().propertyListWithData(bytes, &error);
    if (!value) {
        fail("'" + path + "' is no property list: " + reasonOf(error));
    }
    return value;
}

std::optional<Data> serialise(const Value& value, PropertyListFormat format, const std::string& path) {
    ErrorPtr error;
    auto bytes = PropertyListCodec().dataWithPropertyList(value, format, &error);
    if (!bytes) {
        fail("'" + path + "' cannot be written in this format: " + reasonOf(error));
    }
    return bytes;
}

bool writeWhole(const std::string& path, const Data& bytes) {
    const std::string unfinished = path + ".unfinished";
    std::error_code failure;
    {
        std::ofstream out(unfinished, std::ios::binary);
        out << bytes.bytes();
        if (!out.flush()) {
            fail("'" + path + "' cannot be written: " + std::strerror(errno) + ".");
            std::filesystem::remove(unfinished, failure);
            return false;
        }
    }
    std::filesystem::rename(unfinished, path, failure);
    if (failure) {
        fail("'" + path + "' cannot be written: " + failure.message() + ".");
        std::filesystem::remove(unfinished, failure);
        return false;
    }
    return true;
}

} // namespace

ExitCode pack(const PackArguments& arguments) {
    PropertyListCodec propertyLists;
    ErrorPtr error;
    if (!desktop::packApp(arguments.app, arguments.output, propertyLists, &error)) {
        return fail(reasonOf(error));
    }
    printLine(std::cout, "packed " + arguments.output);
    return ExitCode::done;
}

ExitCode printPlist(const PlistArguments& arguments) {
    const auto value = readPlist(arguments.file);
    if (!value) {
        return ExitCode::failed;
    }
    const bool forTerminal = ::isatty(STDOUT_FILENO) != 0;
    const auto print = [&](std::string_view piece) {
        printXml(std::cout, piece, forTerminal);
        return std::cout.good();
    };
    ErrorPtr error;
    if (!PropertyListCodec().writeXml(*value, print, &error)) {
        return fail("'" + arguments.file + "' cannot be written in this format: " + reasonOf(error));
    }
    return ExitCode::done;
}

ExitCode convertPlist(const PlistArguments& arguments) {
    const auto format = arguments.toXml ? PropertyListFormat::xml : PropertyListFormat::binary;
    const auto value = readPlist(arguments.file);
    const auto bytes = value ? serialise(*value, format, arguments.file) : std::nullopt;
    const std::string& output = arguments.output.empty() ? arguments.file : arguments.output;
    return bytes && writeWhole(output, *bytes) ? ExitCode::done : ExitCode::failed;
}

ExitCode checkPlist(const PlistArguments& arguments) {
    if (!readPlist(arguments.file)) {
        return ExitCode::failed;
    }
    printLine(std::cout, arguments.file + " is a property list");
    return ExitCode::done;
}

} // namespace appsync::host
