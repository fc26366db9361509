// How messages are rendered and handed to the host.
#include "plugin/log/Log.h"
#include "platform/InstallCoordinator.h"
#include "tests/inmemory/World.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

namespace appsync {
namespace {

/// Keeps what the plug-in hands over, as it is.
class Sink final : public HostLog {
  public:
    bool isEnabled(QRLogCategory category, LogLevel level) noexcept override {
        questions.emplace_back(category, level);
        return enabled;
    }
    void write(QRLogCategory category, LogLevel level, std::string_view format,
               std::string_view text) noexcept override {
        messages.push_back({category, level, std::string(format), std::string(text)});
    }
    struct Message {
        QRLogCategory category;
        LogLevel level;
        std::string format;
        std::string text;
    };
    bool enabled = true;
    std::vector<std::pair<QRLogCategory, LogLevel>> questions;
    std::vector<Message> messages;
};

template <std::size_t size> struct Literal {
    constexpr Literal(const char (&literal)[size]) { std::ranges::copy(literal, text); }
    char text[size];
};

/// Whether a message of that format is built for these arguments.
template <Literal format, class... Arguments>
concept Fits = requires {
    typename std::bool_constant<(LogFormat<Arguments...>(format.text), true)>;
};

static_assert(Fits<"plain">);
static_assert(Fits<"%d %{public}@", int, std::string>);
static_assert(!Fits<"plain", int>);
static_assert(!Fits<"%d">);
static_assert(!Fits<"%d %d", int>);
static_assert(!Fits<"%d", int, int>);
static_assert(!Fits<"%x", int>);
static_assert(!Fits<"100%", int>);
static_assert(!Fits<"%d", std::string>);
static_assert(!Fits<"%d", std::int64_t>);
static_assert(!Fits<"%d", char>);
static_assert(!Fits<"%s", int>);
static_assert(!Fits<"%c", int>);
static_assert(!Fits<"%lu", int>);
static_assert(!Fits<"%lu", bool>);
static_assert(!Fits<"%ld", unsigned>);
static_assert(!Fits<"%ld", double>);
static_assert(!Fits<"%f", int>);
static_assert(!Fits<"%{public}@", Literal<1>>);

class PlugInMessages : public testing::Test {
  protected:
    template <class... Arguments>
    std::string render(LogFormat<std::type_identity_t<Arguments>...> format, const Arguments&... arguments) {
        log.message(format, arguments...);
        const std::string text = sink.messages.back().text;
        const std::string prefix = "com.zuvex.tzl.Quorrel.AppSync|";
        EXPECT_TRUE(text.starts_with(prefix));
        return text.substr(prefix.size());
    }
    Sink sink;
    PlugInLog log{sink};
};

TEST_F(PlugInMessages, CarryTheirFormatCategoryAndLevel) {
    log.message("a %{public}@", "b");
    log.error("plain");
    log.oversize("c");
    log.typeCheck("unexpected type for %{public}@", "label");
    ASSERT_EQ(sink.messages.size(), 4u);
    EXPECT_EQ(sink.messages[0].category, QRLogCategorySyncBundle);
    EXPECT_EQ(sink.messages[0].level, LogLevel::standard);
    EXPECT_EQ(sink.messages[0].format, "%s|a %{public}@");
    EXPECT_EQ(sink.messages[0].text, "com.zuvex.tzl.Quorrel.AppSync|a b");
    EXPECT_EQ(sink.messages[1].level, LogLevel::error);
    EXPECT_EQ(sink.messages[1].category, QRLogCategorySyncBundle);
    EXPECT_EQ(sink.messages[2].category, QRLogCategorySyncBundle_Oversize);
    EXPECT_EQ(sink.messages[2].level, LogLevel::standard);
    EXPECT_EQ(sink.messages[3].category, QRLogCategoryFramework);
    EXPECT_EQ(sink.messages[3].level, LogLevel::error);
    EXPECT_EQ(sink.messages[3].format, "unexpected type for %{public}@");
    EXPECT_EQ(sink.messages[3].text, "unexpected type for label");
    ASSERT_EQ(sink.questions.size(), 4u);
    for (std::size_t i = 0; i < 4; ++i) { // asked for what is then written
        EXPECT_EQ(sink.questions[i], std::pair(sink.messages[i].category, sink.messages[i].level));
    }
}

/// Describes itself, and tells that it was asked to.
struct Witness {
    [[nodiscard]] std::string description() const {
        ++*asked;
        return "witness";
    }
    int* asked;
};

TEST_F(PlugInMessages, CostNoRenderingWhenNobodyReadsThem) {
    int asked = 0;
    sink.enabled = false;
    log.message("%{public}@", Witness{&asked});
    EXPECT_EQ(asked, 0);
    EXPECT_TRUE(sink.messages.empty());
    EXPECT_EQ(sink.questions.size(), 1u);
    sink.enabled = true;
    log.message("%{public}@", Witness{&asked});
    EXPECT_EQ(asked, 1);
}

TEST_F(PlugInMessages, PrintNumbersAndCharacters) {
    EXPECT_EQ(render("%d %d %d", 1, true, std::uint8_t{200}), "1 1 200");
    EXPECT_EQ(render("%lu %llu", std::uint64_t{7}, std::numeric_limits<std::uint64_t>::max()),
              "7 18446744073709551615");
    EXPECT_EQ(render("%ld %lld", std::int64_t{-7}, std::numeric_limits<std::int64_t>::min()),
              "-7 -9223372036854775808");
    EXPECT_EQ(render("%c|%s|", 'y', "text"), "y|text|");
    EXPECT_EQ(render("%f %lf", 0.5, 1e300).substr(0, 12), "0.500000 100");
    EXPECT_EQ(render("%s", std::string("own")), "own");
}

TEST_F(PlugInMessages, PrintObjectsOnOneLine) {
    EXPECT_EQ(render("%{public}@", std::string("text")), "text");
    EXPECT_EQ(render("%{public}@", std::optional<std::string>()), "(null)");
    EXPECT_EQ(render("%{public}@", std::optional<std::string>("here")), "here");
    EXPECT_EQ(render("%{public}@", ErrorPtr()), "(null)");
    EXPECT_EQ(render("%{public}@", Error::make("D", -3, {{"k", "v"}})), "D -3 {k = v;}");
    EXPECT_EQ(render("%{public}@", Error::make("D", 1)), "D 1");
    EXPECT_EQ(render("%{public}@", Array{"a", 1, Array{}}), "(a, 1, ())");
    EXPECT_EQ(render("%{public}@", Dictionary{{"k", true}, {"d", Data("abc")}}), "{k = 1; d = <3 bytes>;}");
    EXPECT_EQ(render("%{public}@", Value()), "(null)");
    const Value value = "v";
    EXPECT_EQ(render("%{public}@", &value), "v");
    EXPECT_EQ(render("%{public}@", static_cast<const Value*>(nullptr)), "(null)");
    EXPECT_EQ(render("%{public}@", std::vector<std::string>{"a", "b"}), "(a, b)");
    EXPECT_EQ(render("%{public}@", std::set<std::string>{"b", "a"}), "(a, b)");
    EXPECT_EQ(render("%{public}@", FileURL::fileURLWithPath("/d", true)), "file:///d/");
    EXPECT_EQ(render("%{public}@", KXPlaceholderPtr()), "(null)");
    EXPECT_EQ(render("%{public}@", KXPlaceholderAttributes::init()),
              "<launchProhibited=0 bundleVersion=(null) infoPlist=(null)>");
}

/// What stands behind `bytes` bytes of a message of which the rest was cut.
std::string cutAfter(std::size_t bytes) {
    return "... (cut after " + std::to_string(bytes) + " bytes)";
}

TEST_F(PlugInMessages, CutAnArgumentAtItsLimit) {
    const std::size_t limit = usualMessageLimits.argument;
    const std::string longest(limit, 'x');
    EXPECT_EQ(render("%{public}@|%{public}@", longest, std::string("b")), longest + "|b");
    EXPECT_EQ(render("a %{public}@ b", longest + "y"), "a " + longest + cutAfter(limit) + " b");
    EXPECT_EQ(render("%s", longest + "y"), longest + cutAfter(limit));
    EXPECT_EQ(render("%{public}@", std::vector(3, longest)), "(" + longest.substr(1) + cutAfter(limit));
    EXPECT_EQ(render("%{public}@", Array(700, longest)), "(" + longest.substr(1) + cutAfter(limit));
}

TEST_F(PlugInMessages, CutTheirArgumentsTogetherAtALimit) {
    const std::string half(usualMessageLimits.argument, 'x');
    log.message("%s%s%s%s%s%d", half, half, half, half, half, 7);
    const std::string& text = sink.messages.back().text;
    EXPECT_LT(text.size(), usualMessageLimits.message + 100);
    EXPECT_TRUE(text.ends_with(cutAfter(0))) << text.substr(text.size() - 100);
}

TEST_F(PlugInMessages, HoldMoreOfALargePayload) {
    const std::size_t limit = oversizeMessageLimits.argument;
    EXPECT_EQ(limit, 2'097'152U);
    EXPECT_EQ(oversizeMessageLimits.message, 2 * limit);
    const std::string longest(limit, 'x');
    log.oversize("%{public}@", longest);
    EXPECT_TRUE(sink.messages.back().text.ends_with("|" + longest));
    log.oversize("%{public}@", Array(700, longest));
    EXPECT_TRUE(sink.messages.back().text.ends_with("x" + cutAfter(limit)));
    EXPECT_LT(sink.messages.back().text.size(), limit + 100);
}

TEST_F(PlugInMessages, HoldTheWholeToDoListOfFiveThousandApps) {
    Array toDoList;
    for (int i = 0; i < 5000; ++i) {
        toDoList.push_back(Dictionary{{"identifier", "com.example.some.publisher.application" + std::to_string(i)},
                                      {"operation", "install"},
                                      {"version", "10.20.30.40"},
                                      {"name", "An application with a long name"},
                                      {"size", 4'000'000'000 + i},
                                      {"accountName", "somebody@example.com"}});
    }
    log.oversize("%{public}@", toDoList);
    EXPECT_TRUE(sink.messages.back().text.ends_with("size = 4000004999; accountName = somebody@example.com;})"));
}

TEST_F(PlugInMessages, KeepPercentSignsOfArguments) {
    EXPECT_EQ(render("a %{public}@ b %d", std::string("%d %{public}@"), 5), "a %d %{public}@ b 5");
}

} // namespace
} // namespace appsync
