// The numbers of the machine's accounts and groups.
#pragma once

#include <sys/types.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace appsync::device {

/// Each name is looked up once. Any thread.
class AccountNames {
  public:
    /// Nothing when the machine has none of this name.
    [[nodiscard]] std::optional<uid_t> user(const std::string& name);
    [[nodiscard]] std::optional<gid_t> group(const std::string& name);

  private:
    std::mutex _mutex;
    std::map<std::string, std::optional<uid_t>> _users;
    std::map<std::string, std::optional<gid_t>> _groups;
};

} // namespace appsync::device
