// The page of `qrd watch`, as it stands in host/watch/page, built into the program.
#pragma once

#include <string_view>

namespace appsync::host {

struct PagePart {
    std::string_view path; // at which it is asked for
    std::string_view type;
    std::string_view bytes;
};

/// Null when the page has no such part.
[[nodiscard]] const PagePart* findPagePart(std::string_view path);

} // namespace appsync::host
