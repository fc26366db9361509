// Where a browser of this machine enters `qrd watch`: a port of 127.0.0.1, and the token of this run.
#pragma once

#include "files/Descriptor.h"
#include "values/Result.h"

#include <cstdint>
#include <string>

namespace appsync::host {

/// A listening socket; port 0 is any free one, and is changed to the one that it is.
[[nodiscard]] Result<Descriptor> listenAt(std::uint16_t& port);
[[nodiscard]] ErrorPtr cannotListenError(std::uint16_t port, const std::string& reason);

/// 128 bits that nobody can guess; empty when the system has none.
[[nodiscard]] std::string makeToken();
[[nodiscard]] std::string addressOf(std::uint16_t port, const std::string& token);

} // namespace appsync::host
