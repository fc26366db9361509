// First: files. Here they stand in memory; on a device of your own, confine them to its root and make
// `writeFileAtomically` durable.
#pragma once

#include "platform/FileSystem.h"

#include <map>
#include <mutex>

namespace port {

using namespace appsync;

class Files final : public FileSystem {
  public:
    /// With the folders that are there from the start.
    Files();
    bool createDirectory(std::string_view path, bool withIntermediateDirectories,
                         const std::optional<FileAttributes>& attributes, ErrorPtr* error) noexcept override;
    bool removeItem(std::string_view path, ErrorPtr* error) noexcept override;
    bool moveItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept override;
    bool copyItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept override;
    bool fileExists(std::string_view path) noexcept override;
    std::optional<Data> readFile(std::string_view path, ErrorPtr* error) noexcept override;
    bool writeFileAtomically(std::string_view path, std::string_view bytes, ErrorPtr* error) noexcept override;
    bool createFile(std::string_view path, std::string_view bytes, const FileAttributes& attributes) noexcept override;
    std::optional<FileInformation> attributesOfItem(std::string_view path, ErrorPtr* error) noexcept override;
    int utimes(std::string_view path) noexcept override;
    std::string errorText(int errorNumber) noexcept override;

  private:
    struct Item {
        bool isFolder = true;
        std::string bytes;
    };
    using Items = std::map<std::string, Item, std::less<>>;

    /// Where a path leads: its name in `_items`, or the errno number of what stands in the way of it.
    struct Place {
        std::string name;
        int problem = 0;
    };
    Place _place(std::string_view path, bool makesParents = false);
    /// The item at a path; null, with the number of the problem, when there is none.
    Items::iterator _find(std::string_view path, int& problem);
    int _write(std::string_view path, std::string_view bytes);

    std::mutex _mutex;
    Items _items{{"", {}}}; // by path; the top is ""
};

} // namespace port
