// One wanted app while a sync's transfers are planned: a dictionary, so that it can be ordered and logged as it is.
#pragma once

#include "values/PropertyList.h"

#include <optional>
#include <string>
#include <string_view>

namespace appsync {

class PDApplicationProxy;

/// A candidate entry, from a to-do record or from a placeholder that the registry has. The keys "Path" (the app's
/// folder) and "Container" (the folder around it) lead to its files.
namespace candidate {

[[nodiscard]] Dictionary fromToDoRecord(std::string_view identifier, const Dictionary& record);
[[nodiscard]] Dictionary fromPlaceholder(PDApplicationProxy& placeholder);

} // namespace candidate

/// A candidate entry as planning reads it. A flag that is missing or no number is false.
struct Candidate {
    explicit Candidate(const Dictionary& entry);

    std::string identifier;
    std::optional<std::string> path;
    std::optional<std::string> container;
    std::optional<std::string> version;
    std::optional<std::string> nameFromTamblin;
    bool isRestore;
    bool autoDemoted;
    bool manualDemoted;
    bool systemApp;
};

} // namespace appsync
