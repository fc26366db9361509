#include "device/screen/IconLayout.h"

#include "platform/HomeScreen.h"

#include <unordered_set>

namespace appsync::device {

namespace {

std::string ordinal(std::size_t index) {
    return std::to_string(index + 1);
}

ErrorPtr noLayout(const std::string& problem) {
    return makeError(iconLayoutErrorDomain, 1, problem);
}

/// Reads a layout; the first thing that is wrong ends it.
class Reader {
  public:
    Result<IconLayout> read(const Array& root) {
        IconLayout layout;
        const bool isFlat = !root.empty() && root.front().string().has_value();
        if (isFlat) {
            const auto read = _readPage(root, "the list", false, layout.pages.emplace_back());
            return read ? Result(std::move(layout)) : read.error();
        }
        for (std::size_t i = 0; i < root.size(); ++i) {
            const std::string where = "page " + ordinal(i);
            if (!root[i].array()) {
                return noLayout(where + " is no array");
            }
            if (const auto read = _readPage(*root[i].array(), where, true, layout.pages.emplace_back()); !read) {
                return read.error();
            }
        }
        return layout;
    }

  private:
    Result<void> _readPage(const Array& entries, const std::string& where, bool mayHoldFolders, IconPage& page) {
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const std::string place = "entry " + ordinal(i) + " of " + where;
            const auto identifier = entries[i].string();
            const Dictionary* folder = entries[i].dictionary();
            if (identifier && !identifier->empty()) {
                if (_seen.emplace(*identifier).second) {
                    page.emplace_back(std::string(*identifier));
                }
            } else if (folder && mayHoldFolders) {
                if (auto read = _readFolder(*folder, place, page); !read) {
                    return read;
                }
            } else {
                return noLayout(place + (mayHoldFolders ? " is neither a bundle identifier nor a folder"
                                                        : " is no bundle identifier"));
            }
        }
        return {};
    }

    Result<void> _readFolder(const Dictionary& entries, const std::string& where, IconPage& page) {
        const auto name = entries.string(iconFolderName);
        const Array* lists = entries.array(iconFolderPages);
        if (!name || !lists) {
            return noLayout(where + " is a folder without a displayName or iconLists");
        }
        IconFolder folder{std::string(*name), {}};
        for (const Value& list : *lists) {
            const Array* identifiers = list.array();
            if (!identifiers) {
                return noLayout(where + " is a folder whose iconLists hold something else than arrays");
            }
            IconPage inner;
            if (auto read = _readPage(*identifiers, "a page of the folder at " + where, false, inner); !read) {
                return read;
            }
            IdentifierList& folderPage = folder.pages.emplace_back();
            for (IconPlace& place : inner) {
                folderPage.push_back(std::move(std::get<std::string>(place)));
            }
        }
        page.emplace_back(std::move(folder));
        return {};
    }

    std::unordered_set<std::string> _seen;
};

Array toArray(const IdentifierList& identifiers) {
    return {identifiers.begin(), identifiers.end()};
}

Value toValue(const IconPlace& place) {
    if (const auto* identifier = std::get_if<std::string>(&place)) {
        return *identifier;
    }
    const auto& folder = std::get<IconFolder>(place);
    Array lists;
    for (const IdentifierList& page : folder.pages) {
        lists.emplace_back(toArray(page));
    }
    return Dictionary{{iconFolderName, folder.displayName}, {iconFolderPages, std::move(lists)}};
}

} // namespace

Result<IconLayout> IconLayout::fromPropertyList(const Value& root) {
    return root.array() ? Reader().read(*root.array()) : noLayout("its root is no array");
}

Value IconLayout::propertyList() const {
    Array root;
    for (const IconPage& page : pages) {
        Array entries;
        for (const IconPlace& place : page) {
            entries.push_back(toValue(place));
        }
        root.emplace_back(std::move(entries));
    }
    return root;
}

IdentifierList IconLayout::flattened() const {
    IdentifierList identifiers;
    for (const IconPage& page : pages) {
        for (const IconPlace& place : page) {
            if (const auto* identifier = std::get_if<std::string>(&place)) {
                identifiers.push_back(*identifier);
                continue;
            }
            for (const IdentifierList& inner : std::get<IconFolder>(place).pages) {
                identifiers.insert(identifiers.end(), inner.begin(), inner.end());
            }
        }
    }
    return identifiers;
}

IconLayout IconLayout::showing(const IdentifierList& apps) const {
    std::unordered_set<std::string_view> unplaced(apps.begin(), apps.end());
    const auto take = [&](const std::string& identifier) { return unplaced.erase(identifier) > 0; };
    IconLayout shown;
    for (const IconPage& page : pages) {
        IconPage shownPage;
        for (const IconPlace& place : page) {
            if (const auto* identifier = std::get_if<std::string>(&place)) {
                if (take(*identifier)) {
                    shownPage.push_back(place);
                }
                continue;
            }
            IconFolder folder = std::get<IconFolder>(place);
            for (IdentifierList& inner : folder.pages) {
                std::erase_if(inner, [&](const std::string& identifier) { return !take(identifier); });
            }
            std::erase_if(folder.pages, [](const IdentifierList& inner) { return inner.empty(); });
            if (!folder.pages.empty()) {
                shownPage.emplace_back(std::move(folder));
            }
        }
        if (!shownPage.empty()) {
            shown.pages.push_back(std::move(shownPage));
        }
    }
    if (shown.pages.empty()) {
        shown.pages.emplace_back();
    }
    for (const std::string& app : apps) {
        if (take(app)) {
            shown.pages.back().emplace_back(app);
        }
    }
    return shown;
}

} // namespace appsync::device
