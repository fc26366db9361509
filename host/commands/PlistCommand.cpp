// The commands about property lists, which need no device.
#include "files/OutputFile.h"
#include "files/Syscalls.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "propertylist/Codec.h"

#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <optional>

namespace appsync::host {

namespace {

/// The property list in a file; nullopt, after telling the person why, when there is none.
std::optional<Value> readPlist(const std::string& path) {
    constexpr std::size_t maxListSize = std::size_t{64} << 20; // else a device without an end would be read for ever
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC)); // it may be a pipe
    std::string bytes;
    if (const int failed = file.isOpen() ? readAll(file.get(), maxListSize, bytes) : errno) {
        fail("'" + path + "' cannot be read: " +
             (failed == EFBIG ? "it is larger than a property list may be, 64 MB" : systemText(failed)) + ".");
        return std::nullopt;
    }
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

} // namespace

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
    if (!bytes) {
        return ExitCode::failed;
    }
    const auto written = writeOutput(output, bytes->bytes());
    return written ? ExitCode::done : fail(errorText(written.error()));
}

ExitCode checkPlist(const PlistArguments& arguments) {
    if (!readPlist(arguments.file)) {
        return ExitCode::failed;
    }
    printLine(std::cout, arguments.file + " is a property list");
    return ExitCode::done;
}

} // namespace appsync::host
