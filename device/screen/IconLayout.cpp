#include "device/screen/IconLayout.h"

#include <unordered_set>

namespace appsync::device {

namespace {

std::string ordinal(std::size_t index) {
    return std::to_string(index + 1);
}

/// Reads a layout; the first thing that is wrong ends it.
class Reader {
  public:
    explicit Reader(std::string& problem) : _problem(problem) {}

    bool readPages(const Array& root, std::vector<IconPage>& pages) {
        const bool isFlat = !root.empty() && root.front().string().has_value();
        if (isFlat) {
            return readPage(root, "the list", false, pages.emplace_back());
        }
        for (std::size_t i = 0; i < root.size(); ++i) {
            const std::string where = "page " + ordinal(i);
            if (!root[i].array()) {
                return fail(where + " is no array");
            }
            if (!readPage(*root[i].array(), where, true, pages.emplace_back())) {
                return false;
            }
        }
        return true;
    }

  private:
    bool fail(std::string problem) {
        _problem = std::move(problem);
        return false;
    }

    bool isNew(std::string_view identifier) { return _seen.emplace(identifier).second; }

    bool readPage(const Array& entries, const std::string& where, bool mayHoldFolders, IconPage& page) {
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const std::string place = "entry " + ordinal(i) + " of " + where;
            if (const auto identifier = entries[i].string(); identifier && !identifier->empty()) {
                if (isNew(*identifier)) {
                    page.emplace_back(std::string(*identifier));
                }
            } else if (const Dictionary* folder = entries[i].dictionary(); folder && mayHoldFolders) {
                if (!readFolder(*folder, place, page)) {
                    return false;
                }
            } else {
                return fail(place + (mayHoldFolders ? " is neither a bundle identifier nor a folder"
                                                    : " is no bundle identifier"));
            }
        }
        return true;
    }

    bool readFolder(const Dictionary& entries, const std::string& where, IconPage& page) {
        const auto name = entries.string("displayName");
        const Array* lists = entries.array("iconLists");
        if (!name || !lists) {
            return fail(where + " is a folder without a displayName or iconLists");
        }
        IconFolder folder{std::string(*name), {}};
        for (const Value& list : *lists) {
            const Array* identifiers = list.array();
            if (!identifiers) {
                return fail(where + " is a folder whose iconLists hold something else than arrays");
            }
            IconPage inner;
            if (!readPage(*identifiers, "a page of the folder at " + where, false, inner)) {
                return false;
            }
            IdentifierList& folderPage = folder.pages.emplace_back();
            for (IconPlace& place : inner) {
                folderPage.push_back(std::move(std::get<std::string>(place)));
            }
        }
        page.emplace_back(std::move(folder));
        return true;
    }

    std::string& _problem;
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
    return Dictionary{{"displayName", folder.displayName}, {"iconLists", std::move(lists)}};
}

} // namespace

std::optional<IconLayout> IconLayout::fromPropertyList(const Value& root, std::string& problem) {
    const Array* entries = root.array();
    if (!entries) {
        problem = "its root is no array";
        return std::nullopt;
    }
    IconLayout layout;
    if (!Reader(problem).readPages(*entries, layout.pages)) {
        return std::nullopt;
    }
    return layout;
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
