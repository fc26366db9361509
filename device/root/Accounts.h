// The numbers of user and group accounts by their names.
//
// Each name is asked for once: where the machine has several sources of accounts, one question takes a hundred system
// calls, and each app that the plug-in shows has files to give away.
#pragma once

#include "concurrency/Mutex.h"

#include <grp.h>
#include <pwd.h>

#include <array>
#include <map>
#include <optional>
#include <string>

namespace appsync::device {

class Accounts {
  public:
    /// Nullopt when there is no name, or the machine has no such account.
    [[nodiscard]] std::optional<uid_t> user(const std::optional<std::string>& name) {
        const Lock lock(_mutex);
        return _numberOf(name, _users, [](const char* known, Texts& texts) -> std::optional<uid_t> {
            passwd account{};
            passwd* found = nullptr;
            (void)::getpwnam_r(known, &account, texts.data(), texts.size(), &found);
            return found ? std::optional(account.pw_uid) : std::nullopt;
        });
    }
    /// The same for a group. One with more members than fit into memory set aside for that counts as unknown.
    [[nodiscard]] std::optional<gid_t> group(const std::optional<std::string>& name) {
        const Lock lock(_mutex);
        return _numberOf(name, _groups, [](const char* known, Texts& texts) -> std::optional<gid_t> {
            ::group account{};
            ::group* found = nullptr;
            (void)::getgrnam_r(known, &account, texts.data(), texts.size(), &found);
            return found ? std::optional(account.gr_gid) : std::nullopt;
        });
    }

  private:
    using Texts = std::array<char, 16'384>;
    template <class Number> using Numbers = std::map<std::string, std::optional<Number>, std::less<>>;

    template <class Number, class Ask>
    static std::optional<Number> _numberOf(const std::optional<std::string>& name, Numbers<Number>& known,
                                           const Ask& ask) {
        if (!name) {
            return std::nullopt;
        }
        const auto [place, isNew] = known.try_emplace(*name);
        if (isNew) {
            Texts texts;
            place->second = ask(name->c_str(), texts);
        }
        return place->second;
    }

    Mutex _mutex;
    Numbers<uid_t> _users GUARDED_BY(_mutex);
    Numbers<gid_t> _groups GUARDED_BY(_mutex);
};

} // namespace appsync::device
