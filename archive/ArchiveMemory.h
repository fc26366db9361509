// The memory with which an archive is read: made as it is needed, and fit for the next archive.
#pragma once

#include <cstddef>
#include <memory>

struct libdeflate_decompressor;

namespace appsync {

/// For one archive at a time, on one thread.
class ArchiveMemory {
  public:
    /// Begins where a page does, so that a disk can take from it what is to be written.
    class Buffer {
      public:
        /// Makes room for this many bytes. What was in it is lost when it grows.
        char* grow(std::size_t size);
        [[nodiscard]] const char* data() const noexcept { return _bytes.get(); }

      private:
        struct Free {
            void operator()(char* bytes) const noexcept;
        };

        std::unique_ptr<char[], Free> _bytes;
        std::size_t _capacity = 0;
    };

    ArchiveMemory() noexcept;
    ~ArchiveMemory();
    ArchiveMemory(const ArchiveMemory&) = delete;
    ArchiveMemory& operator=(const ArchiveMemory&) = delete;

    /// Null: there is no memory for one.
    [[nodiscard]] libdeflate_decompressor* inflater() noexcept;

    Buffer file;    // bytes of the archive
    Buffer content; // of an entry, unpacked

  private:
    struct FreeInflater {
        void operator()(libdeflate_decompressor* inflater) const noexcept;
    };

    std::unique_ptr<libdeflate_decompressor, FreeInflater> _inflater;
};

} // namespace appsync
