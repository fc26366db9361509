// The files of a large archive, which several threads unpack at once.
#pragma once

#include "archive/ZipDirectory.h"
#include "concurrency/Mutex.h"
#include "concurrency/Semaphore.h"
#include "values/Result.h"

#include <cstdint>
#include <span>
#include <vector>

namespace appsync::device {

class FileUnpacker;

/// Of several failures that of the first file counts, whichever came first.
class SharedFiles {
  public:
    explicit SharedFiles(std::vector<const ZipDirectory::Entry*> files)
        : _files(std::move(files)), _end(_files.size()) {}

    /// Unpacks files until none is left, or none before one that has failed. Any thread, each with an unpacker of its
    /// own.
    void unpack(FileUnpacker& unpacker) EXCLUDES(_mutex);
    /// When no thread unpacks any more.
    [[nodiscard]] Result<void> outcome() EXCLUDES(_mutex);

  private:
    [[nodiscard]] std::span<const ZipDirectory::Entry* const> _take() EXCLUDES(_mutex);
    void _fail(std::size_t file, const ErrorPtr& error) EXCLUDES(_mutex);

    const std::vector<const ZipDirectory::Entry*> _files; // in their order
    Mutex _mutex;
    std::size_t _next GUARDED_BY(_mutex) = 0;
    std::size_t _end GUARDED_BY(_mutex); // the first that has failed, else their number
    ErrorPtr _failure GUARDED_BY(_mutex);
};

/// Cores that no other large archive has taken, as long as the object is there.
class SpareCores {
  public:
    explicit SpareCores(Semaphore* cores) : _cores(cores) {
        while (_cores && _cores->wait(std::chrono::milliseconds(0))) {
            ++_count;
        }
    }
    ~SpareCores() {
        for (std::size_t i = 0; i < _count; ++i) {
            _cores->signal();
        }
    }
    SpareCores(const SpareCores&) = delete;
    SpareCores& operator=(const SpareCores&) = delete;

    [[nodiscard]] std::size_t count() const noexcept { return _count; }

  private:
    Semaphore* const _cores;
    std::size_t _count = 0;
};

} // namespace appsync::device
