// A folder under another name until it is whole.
#pragma once

#include "files/Descriptor.h"
#include "values/Result.h"

#include <memory>
#include <string>

namespace appsync::host {

/// Stands as ".<name>.unfinished-XXXXXX" beside the place where it belongs, locked as long as it is being made, and is
/// removed again unless it is kept.
class UnfinishedFolder {
  public:
    /// Begins the folder that is to stand at `final`. Removes what a process that was killed has left of the same name:
    /// a folder of this account that nobody has locked and that holds nothing but what a backup does.
    [[nodiscard]] static Result<std::unique_ptr<UnfinishedFolder>> begin(const std::string& final);
    ~UnfinishedFolder();
    UnfinishedFolder(const UnfinishedFolder&) = delete;
    UnfinishedFolder& operator=(const UnfinishedFolder&) = delete;

    /// Its descriptor.
    [[nodiscard]] int folder() const noexcept { return _folder.get(); }
    /// Makes it durable and gives it its name, unless something has that meanwhile. When the name cannot be made
    /// durable it stands there nevertheless.
    [[nodiscard]] Result<void> keep();

  private:
    explicit UnfinishedFolder(const std::string& final);
    /// 0, or an errno number.
    [[nodiscard]] int _make();
    void _removeLeftOnes() const;

    std::string _final;
    std::string _name; // the last part of `_final`
    std::string _temporaryName;
    Descriptor _parent;
    Descriptor _folder;
    bool _isThere = false;
};

/// "'…' cannot be written: …."
[[nodiscard]] ErrorPtr writeError(const std::string& path, int errorNumber);

} // namespace appsync::host
