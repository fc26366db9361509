// How much an archive may ask for before it is refused.
#pragma once

#include <cstdint>

namespace appsync {

struct ArchiveLimits {
    std::uint64_t entries = 65'535; // files, links and folders, with those that are only named in paths
    std::uint64_t unpackedBytes = std::uint64_t{16} << 30; // all files together
    /// Unpacked bytes per byte of the archive. The format cannot pass 1032, ordinary apps stay below 20; what unpacks
    /// to less than `freeBytes` may have any ratio.
    std::uint64_t ratio = 200;
    std::uint64_t freeBytes = std::uint64_t{64} << 20;
    std::uint64_t pathBytes = 1'024;                     // of one entry's path
    std::uint64_t pathDepth = 64;                        // folders above one entry
    std::uint64_t listBytes = std::uint64_t{2} << 20;    // one property list: the store's, or an app's Info.plist
    std::uint64_t pictureBytes = std::uint64_t{4} << 20; // artwork, or an icon
};

} // namespace appsync
