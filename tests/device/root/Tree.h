// Everything below a folder of this machine, to see whether something has changed it.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <ostream>
#include <string>

namespace appsync::device {

/// By path what the entry is, its bytes, and when it and its content were changed last.
class Tree {
  public:
    /// Leaves out what has a name with this end, unless that is empty.
    explicit Tree(const std::string& folder, const std::string& leftOut = {}) {
        _add(folder);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
            if (leftOut.empty() || !entry.path().string().ends_with(leftOut)) {
                _add(entry.path().string());
            }
        }
    }
    friend bool operator==(const Tree&, const Tree&) = default;
    friend void PrintTo(const Tree& tree, std::ostream* out) {
        for (const auto& [path, facts] : tree._entries) {
            *out << "\n  " << path << " " << facts.substr(0, facts.find('\n'));
        }
    }

  private:
    void _add(const std::string& path) {
        struct stat status {};
        ::lstat(path.c_str(), &status);
        std::string facts = std::to_string(status.st_mode) + " " + std::to_string(status.st_ino);
        for (const timespec& time : {status.st_mtim, status.st_ctim}) {
            facts += " " + std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec);
        }
        if (S_ISREG(status.st_mode)) {
            std::ifstream file(path, std::ios::binary);
            facts += "\n" + std::string(std::istreambuf_iterator<char>(file), {});
        }
        _entries.emplace(path, facts);
    }

    std::map<std::string, std::string> _entries;
};

} // namespace appsync::device
