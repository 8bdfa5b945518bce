/// \file
/// Filesystem helpers for applications and the library: tests, creating, copying, moving
/// and removing files and directories, and a temporary directory that cleans up after
/// itself.
///
/// Nothing here throws: a failure returns false or an empty optional and writes an ERROR
/// line to the log module "tavi.fs". The functions keep no state and are thread safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ecu/tavi/export.h"

namespace ecu::tavi::fs {

/// exists and is_file / is_directory follow symbolic links; is_symlink tests the link itself.
TAVI_EXPORT bool exists(const std::string& path);
TAVI_EXPORT bool is_file(const std::string& path);
TAVI_EXPORT bool is_directory(const std::string& path);
TAVI_EXPORT bool is_symlink(const std::string& path);

/// Creates the directory and any missing parents; true also when it already exists.
TAVI_EXPORT bool mkdir(const std::string& path);
/// Renames a file or directory; across filesystems it copies and then removes the source.
TAVI_EXPORT bool move(const std::string& from, const std::string& to);
/// Copies a regular file, replacing an existing file at the destination.
TAVI_EXPORT bool copy_file(const std::string& from, const std::string& to);
/// Removes a file, link or whole directory tree; true when nothing is left at the path, so a
/// missing path is not a failure.
TAVI_EXPORT bool remove(const std::string& path);
/// Bytes in all regular files below a directory, links not followed.
TAVI_EXPORT std::optional<uint64_t> dir_size(const std::string& path);

TAVI_EXPORT std::optional<std::string> read_file_into_string(const std::string& path);
/// Creates or replaces the file with exactly these bytes.
TAVI_EXPORT bool create_file_with_contents(const std::string& path, const std::string& contents);
/// Cuts an existing file to the given size (or extends it with zero bytes).
TAVI_EXPORT bool truncate(const std::string& path, uint64_t size = 0);

TAVI_EXPORT bool create_symlink(const std::string& target, const std::string& link);
TAVI_EXPORT std::optional<std::string> read_symlink(const std::string& link);

/// A fresh directory "tmpdir.XXXXXX" in the system's temporary directory, removed with all
/// its contents when the object is destroyed. path() is empty when it could not be created.
class TAVI_EXPORT TempDirectory {
public:
    TempDirectory();
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::string& path() const { return m_path; }
    bool valid() const { return !m_path.empty(); }

private:
    std::string m_path;
};

}  // namespace ecu::tavi::fs
