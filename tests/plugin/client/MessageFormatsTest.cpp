// The table of formats that every plug-in test is held to.
#include "tests/inmemory/ClientTest.h"
#include "tests/inmemory/Formats.h"

namespace appsync {
namespace {

/// A format with its conversions made alike.
std::string bare(std::string_view format) {
    std::string text;
    std::size_t from = 0;
    for (auto found = detail::nextSpecifier(format, 0); found.conversion != detail::Conversion::none;
         found = detail::nextSpecifier(format, from)) {
        text.append(format.substr(from, found.begin - from)).append("%");
        from = found.end;
    }
    return text.append(format.substr(from));
}

TEST(MessageFormats, DifferInMoreThanTheirConversions) {
    std::set<std::string> bareFormats;
    for (const std::string_view format : inmemory::formatsWithConversions()) {
        EXPECT_TRUE(bareFormats.insert(bare(format)).second) << format;
    }
}

TEST(MessageFormats, KeepTheirConversions) {
    inmemory::World world;
    const PlugInLog log{world.log};
    log.message("performing %llu deletions", std::uint64_t{1});
    EXPECT_EQ(world.log.unknownFormats(), inmemory::Lines{});
    log.message("performing %lu deletions", std::uint64_t{1});
    EXPECT_EQ(world.log.unknownFormats(), inmemory::Lines{"performing %lu deletions"});
}

} // namespace
} // namespace appsync
