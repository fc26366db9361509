// What is wrong with a command line, in words that name it.
#pragma once

#include <span>
#include <string>

namespace CLI {
class App;
class Error;
} // namespace CLI

namespace appsync::host {

/// A sentence about words that the commands of `app` do not take: the first unknown command or option by its name, with
/// the nearest right one, otherwise what the problem says; then which help to ask for.
[[nodiscard]] std::string describeWrongUse(const CLI::App& app, std::span<const std::string> words,
                                           const CLI::Error& problem);

/// The command that words name, as far as they do.
struct NamedCommand {
    const CLI::App* command = nullptr;
    std::string path;      // how a person calls it, such as "qrd plist check"
    std::size_t words = 0; // that name it
};
[[nodiscard]] NamedCommand namedCommand(const CLI::App& app, std::span<const std::string> words);

} // namespace appsync::host
