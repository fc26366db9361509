#include "host/WrongUse.h"

#include "host/Nearest.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace appsync::host {

namespace {

std::vector<std::string> commandNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        names.push_back(command->get_name());
    }
    return names;
}

std::vector<std::string> optionNames(const CLI::App& command) {
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
        for (const std::string& name : option->get_snames()) {
            names.push_back("-" + name);
        }
    }
    return names;
}

bool isOption(const std::string& word) {
    return word.size() > 1 && word.front() == '-';
}

/// The first option that the command does not have; empty when it has all. Of "--name=value" it is the name.
std::string unknownOption(const CLI::App& command, std::span<const std::string> words) {
    const auto known = optionNames(command);
    for (const std::string& word : words) {
        if (word == "--") {
            break;
        }
        const std::string name = word.starts_with("--") ? word.substr(0, word.find('=')) : word.substr(0, 2);
        if (isOption(word) && std::ranges::find(known, name) == known.end()) {
            return word.starts_with("--") ? name : word;
        }
    }
    return "";
}

} // namespace

NamedCommand namedCommand(const CLI::App& app, std::span<const std::string> words) {
    NamedCommand named{&app, app.get_name()};
    for (const std::string& word : words) {
        const auto found = named.command->get_subcommands([&](const CLI::App* one) { return one->check_name(word); });
        if (found.empty()) {
            break;
        }
        named = {found.front(), named.path + " " + word, named.words + 1};
    }
    return named;
}

std::string describeWrongUse(const CLI::App& app, std::span<const std::string> words, const CLI::Error& problem) {
    const NamedCommand named = namedCommand(app, words);
    const auto rest = words.subspan(named.words);
    const auto commands = commandNames(*named.command);
    const std::string help = " See `" + named.path + " --help`.";
    if (!commands.empty() && !rest.empty() && !isOption(rest.front())) {
        return named.path + " has no command '" + rest.front() + "'." + suggestion(rest.front(), commands) + help;
    }
    if (const std::string option = unknownOption(*named.command, rest); !option.empty()) {
        return named.path + " has no option '" + option + "'." + suggestion(option, optionNames(*named.command)) + help;
    }
    if (commands.empty()) {
        const auto left = app.remaining(true);
        return named.path + (left.empty() ? std::string(": ") + problem.what() : " takes no '" + left.front() + "'") +
               "." + help;
    }
    return named.path + " needs a command." + help;
}

} // namespace appsync::host
