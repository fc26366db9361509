// Pages that watch a device, without a browser: they ask `qrd watch` for its events and read them.
#pragma once

#include "bench/Lags.h"
#include "files/Descriptor.h"

#include <sys/types.h>

#include <string>
#include <thread>
#include <vector>

namespace appsync::bench {

/// Reads up to the end.
void hear(int from, Heard& heard);

class Watchers {
  public:
    /// Starts the server, and returns when so many pages have had their first event. Ends the program when that fails.
    Watchers(const std::string& qrd, const std::string& device, int pages);
    /// Ends the server, and with it the pages.
    ~Watchers();
    /// What the first page has heard; the server is ended. Once.
    [[nodiscard]] Heard end();
    Watchers(const Watchers&) = delete;
    Watchers& operator=(const Watchers&) = delete;

  private:
    pid_t _server = 0;
    Descriptor _output;
    Heard _heard; // by the first page; that writes it until it has ended
    std::vector<std::jthread> _pages;
};

} // namespace appsync::bench
