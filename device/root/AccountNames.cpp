#include "device/root/AccountNames.h"

#include <grp.h>
#include <pwd.h>

#include <array>

namespace appsync::device {

namespace {

/// Room for one account's texts; a group with more members than fit is treated as unknown.
using TextBuffer = std::array<char, 16'384>;

} // namespace

std::optional<uid_t> AccountNames::user(const std::string& name) {
    const std::lock_guard lock(_mutex);
    const auto [place, isNew] = _users.try_emplace(name);
    if (isNew) {
        TextBuffer texts;
        passwd account{};
        passwd* found = nullptr;
        if (::getpwnam_r(name.c_str(), &account, texts.data(), texts.size(), &found) == 0 && found) {
            place->second = account.pw_uid;
        }
    }
    return place->second;
}

std::optional<gid_t> AccountNames::group(const std::string& name) {
    const std::lock_guard lock(_mutex);
    const auto [place, isNew] = _groups.try_emplace(name);
    if (isNew) {
        TextBuffer texts;
        ::group account{};
        ::group* found = nullptr;
        if (::getgrnam_r(name.c_str(), &account, texts.data(), texts.size(), &found) == 0 && found) {
            place->second = account.gr_gid;
        }
    }
    return place->second;
}

} // namespace appsync::device
