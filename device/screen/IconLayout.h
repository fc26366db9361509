// The arrangement of the home screen's icons: pages of icons and folders.
//
// As a property list its root is an array of bundle identifiers, or an array of pages. A page is an array whose entries
// are bundle identifiers or folders; a folder is a dictionary with "displayName", a string, and "iconLists", an array
// of pages of bundle identifiers.
#pragma once

#include "values/PropertyList.h"
#include "values/Result.h"

#include <string>
#include <variant>
#include <vector>

namespace appsync::device {

/// The domain of the error of what is no layout; its code is 1.
inline constexpr std::string_view iconLayoutErrorDomain = "IconLayout";

using IdentifierList = std::vector<std::string>;

struct IconFolder {
    std::string displayName;
    std::vector<IdentifierList> pages;
    friend bool operator==(const IconFolder&, const IconFolder&) = default;
};

/// An app's bundle identifier, or a folder.
using IconPlace = std::variant<std::string, IconFolder>;
using IconPage = std::vector<IconPlace>;

struct IconLayout {
    std::vector<IconPage> pages;

    /// The layout that a property list holds; a list of identifiers is one page. An identifier that appears again
    /// counts where it stands first. Fails when the list has another shape.
    [[nodiscard]] static Result<IconLayout> fromPropertyList(const Value& root);
    [[nodiscard]] Value propertyList() const;
    /// All identifiers in their order, folders opened out in place.
    [[nodiscard]] IdentifierList flattened() const;
    /// What a person sees: only the apps that are there, in their places; those that have none follow on the last page
    /// in the given order. Pages and folders that nothing is left of are gone.
    [[nodiscard]] IconLayout showing(const IdentifierList& apps) const;

    friend bool operator==(const IconLayout&, const IconLayout&) = default;
};

} // namespace appsync::device
