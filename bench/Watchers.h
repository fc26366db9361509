// Pages that watch a device, without a browser: they ask `qrd watch` for its events and read them.
#pragma once

#include "files/Descriptor.h"

#include <sys/types.h>

#include <string>
#include <thread>
#include <vector>

namespace appsync::bench {

class Watchers {
  public:
    /// Starts the server, and returns when so many pages have had their first event. Ends the program when that fails.
    Watchers(const std::string& qrd, const std::string& device, int pages);
    /// Ends the server, and with it the pages.
    ~Watchers();
    Watchers(const Watchers&) = delete;
    Watchers& operator=(const Watchers&) = delete;

  private:
    pid_t _server = 0;
    Descriptor _output;
    std::vector<std::jthread> _pages;
};

} // namespace appsync::bench
