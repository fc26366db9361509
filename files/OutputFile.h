// A file that a person asked for, by a path that may lead anywhere.
#pragma once

#include "files/Descriptor.h"
#include "values/Result.h"

#include <memory>
#include <string>
#include <string_view>

namespace appsync {

/// Whether a path leads to where the standard output goes: then nothing else may be said there.
[[nodiscard]] bool isStandardOutput(const std::string& path) noexcept;

/// What is written appears at its path whole or not at all. It is collected in a file of a name that nobody can
/// foresee; that takes the place of the one at the path, or of a link's target, and keeps its mode. What is no regular
/// file there (a pipe, a device) is written into, and the standard output is, whatever it is.
class OutputFile {
  public:
    /// Fails when the path cannot be written.
    [[nodiscard]] static Result<std::unique_ptr<OutputFile>> open(const std::string& path);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    /// Leaves nothing behind unless it was finished.
    ~OutputFile();

    /// Open for reading and writing; a regular file until it is finished.
    [[nodiscard]] int descriptor() const noexcept { return _content.get(); }
    [[nodiscard]] Result<void> write(std::string_view bytes);
    /// Puts the content into its place. Once.
    [[nodiscard]] Result<void> finish();

  private:
    explicit OutputFile(std::string path) : _path(std::move(path)) {}
    // Each returns zero or an errno number.
    [[nodiscard]] int _open();
    [[nodiscard]] int _openTarget();
    [[nodiscard]] int _openContent(const std::string& folder, mode_t mode);
    [[nodiscard]] int _copy();
    [[nodiscard]] int _replace();
    [[nodiscard]] Result<void> _outcome(int failed) const;

    const std::string _path; // as the person wrote it
    std::string _target;     // the path without links at its end
    std::string _unfinished; // the content's own path; empty when it has none
    Descriptor _content;
    Descriptor _node;     // what is written into; closed when a file is made or replaced
    Descriptor _replaced; // the file that is replaced; closed when there was none
};

/// Writes a file that a person asked for.
[[nodiscard]] Result<void> writeOutput(const std::string& path, std::string_view bytes);

} // namespace appsync
