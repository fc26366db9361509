// A folder under another name until it is whole.
#pragma once

#include "files/Descriptor.h"
#include "values/Error.h"

#include <string>

namespace appsync::host {

/// Stands as ".<name>.unfinished-XXXXXX" beside the place where it belongs, locked as long as it is being made, and is
/// removed again unless it is kept. Making one removes what a process that was killed has left of the same name: a
/// folder of this account that nobody has locked and that holds nothing but what a backup does.
class UnfinishedFolder {
  public:
    explicit UnfinishedFolder(const std::string& final);
    ~UnfinishedFolder();
    UnfinishedFolder(const UnfinishedFolder&) = delete;
    UnfinishedFolder& operator=(const UnfinishedFolder&) = delete;

    /// Why there is none; null when there is one.
    [[nodiscard]] const ErrorPtr& error() const noexcept { return _error; }
    /// Its descriptor.
    [[nodiscard]] int folder() const noexcept { return _folder.get(); }
    /// Makes it durable and gives it its name, unless something has that meanwhile. When the name cannot be made
    /// durable it stands there nevertheless.
    [[nodiscard]] ErrorPtr keep();

  private:
    [[nodiscard]] int _make();
    void _removeLeftOnes() const;

    std::string _final;
    std::string _name; // the last part of `_final`
    std::string _temporaryName;
    Descriptor _parent;
    Descriptor _folder;
    ErrorPtr _error;
    bool _isThere = false;
};

/// "'…' cannot be written: …."
[[nodiscard]] ErrorPtr writeError(const std::string& path, int errorNumber);

} // namespace appsync::host
